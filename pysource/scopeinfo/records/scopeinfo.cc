#include "pysource/scopeinfo/records/scopeinfo.h"

#include <utility>

#include "pysource/host/analysismgr.h"
#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/memoryuse.h"
#include "pysource/host/repr.h"
#include "pysource/host/singleton.h"
#include "pysource/host/strutils.h"
#include "pysource/host/symbolinfo/kinds.h"

namespace pysource::scopeinfo {

const std::shared_ptr<const CScopeInfoKeySet> kEmptyKeySet = std::make_shared<CScopeInfoKeySet>();

namespace {

Kind ScopeKind(TextView for_scope, BytesView scope_ibytes) {
  if (IsTopLevelModuleScope(for_scope)) {
    return kModuleKind;
  }
  if (IsInstanceScope(for_scope)) {
    return kInstanceKind;
  }
  if (!scope_ibytes.empty()) {
    const Kind kind = GetInfoBytesKind(scope_ibytes);
    return OpensScope(kind) ? kind : Kind{0};
  }
  return 0;
}

std::vector<TextView> SplitDomain(const std::optional<CStrDict>& domains, TextView symbol) {
  std::vector<TextView> items;
  const auto entry = domains ? domains->Get(symbol) : std::nullopt;
  if (!entry) {
    return items;
  }
  size_t start = 0;
  for (size_t end = entry->find(kInfoBytesSep); end != BytesView::npos;
       end = entry->find(kInfoBytesSep, start)) {
    items.push_back(AsStr(*entry, start, end));
    start = end + 1;
  }
  items.push_back(entry->substr(start));
  return items;
}

CStrDict& Present(std::optional<CStrDict>& dict, const char* field) {
  if (!dict) {
    throw CTypeError(std::string(field) + " is absent: assign a dictionary before storing into it");
  }
  return *dict;
}

}  // namespace

CScopeInfo::CScopeInfo(CScopeInfoKey info_key, CArena arena, BytesView scope_info_bytes,
                       std::optional<DiskTime> mtime, bool is_incomplete, bool is_missing)
    : key(std::move(info_key)),
      loc(key.for_loc()),
      for_scope(key.for_scope()),
      disk_mtime(mtime),
      scanned_loc(key.scanned_loc()),
      scanned_scope(key.scanned_scope()),
      does_not_exist(is_missing),
      incomplete(is_incomplete),
      scope_kind(ScopeKind(for_scope, scope_info_bytes)),
      scope_ibytes(scope_info_bytes),
      merged_keys(kEmptyKeySet),
      _fArena(std::move(arena)) {}

CScopeInfo::CScopeInfo(CScopeInfoKey info_key, BytesView scope_info_bytes,
                       std::optional<DiskTime> mtime, bool is_incomplete, bool is_missing)
    : CScopeInfo(std::move(info_key), CArena(), scope_info_bytes, mtime, is_incomplete,
                 is_missing) {
  if (!scope_info_bytes.empty()) {
    _fArena = CArena(scope_info_bytes.size());
    scope_ibytes = _fArena.Store(scope_info_bytes);
  }
}

CScopeInfo::~CScopeInfo() = default;

std::optional<BytesView> CScopeInfo::GetInfoBytes(TextView name, std::optional<BytesView> fallback,
                                                  bool inst) const {
  if (inst && !inst_type_equivs) {
    return fallback;
  }
  const auto ibytes = (inst ? *inst_type_equivs : type_equivs).Get(name);
  return ibytes ? ibytes : fallback;
}

std::vector<TextView> CScopeInfo::GetDomainSeq(TextView symbol) const {
  return SplitDomain(_domains, symbol);
}

std::vector<TextView> CScopeInfo::GetInstDomainSeq(TextView symbol) const {
  return SplitDomain(_inst_domains, symbol);
}

const Bytes& CScopeInfo::GetSerializedData() const {
  if (!_serialized_data) {
    const CAnalysisManager* const manager = singleton::GetSingletons().fAnalysisMgr;
    if (manager == nullptr || manager->fInfoCache == nullptr) {
      throw CTypeError("a record cannot be encoded without an info cache");
    }
    _serialized_data = manager->fInfoCache->EncodeScopeInfo(*this);
  }
  return *_serialized_data;
}

bool CScopeInfo::IsNameFilteredOut(TextView name) const {
  if (!from_import_star) {
    return false;
  }
  return import_all_set ? !import_all_set->contains(name) : name.starts_with('_');
}

size_t CScopeInfo::MemoryUse(std::unordered_set<const void*>& seen) const {
  size_t bytes = sizeof(CScopeInfo) + _fArena.MemoryUse(seen) + type_equivs.MemoryUse(seen);
  for (const std::optional<CStrDict>* const dict : {&_domains, &inst_type_equivs, &_inst_domains}) {
    bytes += *dict ? (*dict)->MemoryUse(seen) : 0;
  }
  bytes += _serialized_data ? HeapUse(*_serialized_data) : 0;
  bytes += import_all_set ? HeapUse(*import_all_set) : 0;
  if (merged_keys != kEmptyKeySet && merged_keys != nullptr) {
    bytes += sizeof(CScopeInfoKeySet) + merged_keys->MemoryUse();
  }
  return bytes;
}

Text CScopeInfo::Repr() const {
  return FormatBraces(
      "CScopeInfo({}, {}, {}, {}, {})",
      {loc, pysource::Repr(for_scope), pysource::Repr(scanned_scope), disk_mtime, incomplete});
}

void CScopeInfo::SetInfoBytes(TextView name, BytesView ibytes, bool inst) {
  (inst ? Present(inst_type_equivs, "inst_type_equivs") : type_equivs).Set(name, ibytes);
}

void CScopeInfo::SetDomainSeq(TextView name, const std::vector<BytesView>& domain_seq, bool inst) {
  CStrDict& domains =
      inst ? Present(_inst_domains, "_inst_domains") : Present(_domains, "_domains");
  Bytes joined;
  for (size_t i = 0; i < domain_seq.size(); ++i) {
    if (i != 0) {
      joined += kInfoBytesSep;
    }
    joined += domain_seq[i];
  }
  domains.Set(name, joined);
}

void CScopeInfo::FinishedBuilding() const {
  if (!AssertionsActive()) {
    return;
  }
  // The encoder accepts a name that is not UTF-8, and the decoder would then reject the record.
  for (const auto& [name, ibytes] : type_equivs) {
    Assert(IsUtf8(name));
  }
  if (inst_type_equivs) {
    for (const auto& [name, ibytes] : *inst_type_equivs) {
      Assert(IsUtf8(name));
    }
  }
}

}  // namespace pysource::scopeinfo
