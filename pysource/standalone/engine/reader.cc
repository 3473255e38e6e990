#include "pysource/standalone/engine/reader.h"

#include <algorithm>
#include <tuple>
#include <utility>

#include "pysource/host/errors.h"
#include "pysource/host/symbolinfo.h"
#include "pysource/scopeinfo/records/mergescopeinfo.h"
#include "pysource/standalone/engine/filerows.h"
#include "pysource/standalone/scanner/scanner.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::standalone {
namespace {

bool IsPrimary(const scopeinfo::CScopeInfo& info) {
  return info.key.scan_name() == kNamesScan && info.scanned_loc == info.loc &&
         info.scanned_scope == info.for_scope;
}

}  // namespace

CScopeReader::ESource CScopeReader::Open(const std::string& path) {
  _fScanned.clear();
  _fLoc = _fLocCache.GetLocationForPath(path);
  _fDiskTime = GetFileDiskTime(path);
  if (_fDb != nullptr) {
    CLocMtimeDict time;
    time.Set(_fLoc, _fDiskTime);
    const CScansDoneDict scans_done = _fDb->GetScansDone(time);
    const Text* done = scans_done.Find(_fLoc);
    if (done != nullptr && *done == kAllScansDone) {
      _fSource = ESource::kDatabase;
      return _fSource;
    }
  }
  _fSource = ESource::kScan;
  const CSourceFile file = ReadSourceFile(path);
  _fDiskTime = file.disk_mtime;
  const CFileImportResolver resolver(_fLocCache, {});
  CScanner scanner(resolver);
  for (const CScanResult& result :
       scanner.Scan({_fLoc, file.source, file.disk_mtime, false}).results) {
    for (const scopeinfo::CScopeInfoPtr& info : result.infos) {
      if (info->loc == _fLoc) {
        _fScanned.push_back(info);
      }
    }
  }
  // In the order of the database, so that the answers are the same.
  std::stable_sort(_fScanned.begin(), _fScanned.end(), [](const auto& a, const auto& b) {
    const auto rank = [](const scopeinfo::CScopeInfo& info) {
      return std::make_tuple(info.for_scope, info.key.scan_name(), info.scanned_scope);
    };
    return rank(*a) < rank(*b);
  });
  return _fSource;
}

std::vector<Text> CScopeReader::GetScopeNames() {
  std::vector<Text> names;
  if (_fSource == ESource::kDatabase) {
    names = _fDb->ReadScopeNames(_fLoc, kNamesScan, _fDiskTime);
  } else {
    for (const scopeinfo::CScopeInfoPtr& info : _fScanned) {
      if (info->key.scan_name() == kNamesScan) {
        names.emplace_back(info->for_scope);
      }
    }
  }
  std::sort(names.begin(), names.end());
  return names;
}

scopeinfo::CScopeInfoPtr CScopeReader::GetMergedInfo(TextView scope) {
  std::vector<scopeinfo::CScopeInfoPtr> infos =
      ReadInfos({Text(kNamesScan), Text(kAttrsScan)}, Text(scope));
  if (infos.empty()) {
    return nullptr;
  }
  const auto primary =
      std::find_if(infos.begin(), infos.end(), [](const auto& info) { return IsPrimary(*info); });
  if (primary != infos.end()) {
    std::rotate(infos.begin(), primary, primary + 1);
  }
  // Copied under its own key, which says where it came from also when nothing else is merged in.
  const scopeinfo::CScopeInfoPtr first = infos.front()->Copy(false, true);
  infos.erase(infos.begin());
  return scopeinfo::MergeScopeInfoSeq(first, infos, {});
}

void CScopeReader::VisitPrimaryInfos(
    const std::function<void(const scopeinfo::CScopeInfo&)>& visit) {
  for (const scopeinfo::CScopeInfoPtr& info : ReadInfos({Text(kNamesScan)}, Text(kWildcardScope))) {
    if (IsPrimary(*info)) {
      visit(*info);
    }
  }
}

std::vector<scopeinfo::CScopeInfoPtr> CScopeReader::ReadInfos(const std::vector<Text>& scan_names,
                                                              Text scope) {
  std::vector<scopeinfo::CScopeInfoPtr> infos;
  if (_fSource == ESource::kScan) {
    for (const scopeinfo::CScopeInfoPtr& info : _fScanned) {
      if ((scope == kWildcardScope || info->for_scope == scope) &&
          std::find(scan_names.begin(), scan_names.end(), info->key.scan_name()) !=
              scan_names.end()) {
        infos.push_back(info);
      }
    }
    return infos;
  }
  const std::vector<Text> scopes{std::move(scope)};
  for (const CDatabaseRecord& row :
       _fDb->ReadScopeDataRecords(_fLoc, scan_names, scopes, _fDiskTime)) {
    // Neighbours may come along.
    if (scopes.front() != kWildcardScope && row.for_scope != scopes.front()) {
      continue;
    }
    scopeinfo::CScopeInfoPtr info = ReadRow(_fSerializer, row, _fDiskTime);
    if (info == nullptr) {
      throw CValueError("a record of " + _fLoc->fUrl + ", scope \"" + row.for_scope +
                        "\", cannot be decoded; index the file again into a new database");
    }
    infos.push_back(std::move(info));
  }
  return infos;
}

}  // namespace pysource::standalone
