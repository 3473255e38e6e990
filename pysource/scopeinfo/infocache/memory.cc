// Memory use of the cache by owner. Walks over everything in the cache, so it is only for reports.
#include <unordered_set>

#include "pysource/scopeinfo/infocache/infocache.h"

namespace pysource::scopeinfo {
namespace {

// Objects already counted: a shared object counts where it is met first.
using CSeen = std::unordered_set<const void*>;

size_t UseOf(const CScopesSeenPtr& scopes_seen, CSeen& seen) {
  if (scopes_seen == nullptr || !seen.insert(scopes_seen.get()).second) {
    return 0;
  }
  size_t bytes = sizeof(CScopesSeenDict) + scopes_seen->MemoryUse();
  for (const auto& [scope, mtime] : *scopes_seen) {
    bytes += HeapUse(scope.scope);
  }
  return bytes;
}

size_t UseOf(const CScopeInfoPtr& info, CSeen& seen) {
  return info == nullptr || !seen.insert(info.get()).second ? 0 : info->MemoryUse(seen);
}

}  // namespace

CMemoryUse CInfoCache::MemoryUse() const {
  CSeen seen;
  CMemoryUse files{"files", _fPerFileDict.MemoryUse(), {}};
  CMemoryUse names{"scope names", 0, {}};
  CMemoryUse records{"records", 0, {}};
  CMemoryUse scopes_seen{"scopes seen", 0, {}};
  CMemoryUse decoded{"decoded records", _fCrossFileData._fExistingScopeInfo.MemoryUse(), {}};
  for (const auto& [loc, per_file] : _fPerFileDict) {
    files.own += sizeof(CPerFileEntry) + HeapUse(per_file->fScansDone);
    names.own +=
        HeapUse(per_file->all_db_scope_names) + HeapUse(per_file->db_scope_names_not_loaded);
    records.own += per_file->serialized_data_dict.MemoryUse();
    for (const auto& [scope_name, record_list] : per_file->serialized_data_dict) {
      records.own += HeapUse(scope_name) + record_list.capacity() * sizeof(CSerializedRecord);
      for (const CSerializedRecord& record : record_list) {
        records.own += HeapUse(record.data);
        scopes_seen.own += UseOf(record.scopes_seen, seen);
      }
    }
    decoded.own += per_file->primary_info_dict.MemoryUse();
    for (const auto& [scope_name, info] : per_file->primary_info_dict) {
      decoded.own += HeapUse(scope_name) + UseOf(info, seen);
    }
  }
  for (const auto& [key, info] : _fCrossFileData._fExistingScopeInfo) {
    decoded.own += UseOf(info, seen);
  }

  CMemoryUse keys{"keys", 0, {}};
  for (const CScopeInfoKey& key : _fCrossFileData._fAllInfoKeys) {
    keys.own += key.MemoryUse();
  }

  CMemoryUse used{"order of use", _fUsedScopesDict.MemoryUse(), {}};
  for (const auto& [scope, returned] : _fUsedScopesDict) {
    used.own += HeapUse(scope.scope);
  }

  CMemoryUse merged{"merged records", _fMergedInfoCache.TableMemoryUse(), {}};
  _fMergedInfoCache.Visit([&](const CMergedKey& key, const CMergedValue& value) {
    merged.own += HeapUse(key.scope_name) + UseOf(value.merged_info, seen);
  });
  merged.parts.push_back({"what they rest on", _fMergedInfoCache.IndexMemoryUse(), {}});

  return {"info cache",
          sizeof(CInfoCache) + _fSecondaryFiles.MemoryUse() + _fReverseSecondaryFiles.MemoryUse(),
          {std::move(files), std::move(names), std::move(records), std::move(scopes_seen),
           std::move(keys), _fCrossFileData.MemoryUse(), std::move(decoded), std::move(used),
           std::move(merged)}};
}

}  // namespace pysource::scopeinfo
