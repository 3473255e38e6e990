#include "pysource/standalone/engine/mergecheck.h"

#include <algorithm>
#include <unordered_map>
#include <utility>

#include "pysource/host/repr.h"
#include "pysource/scopeinfo/records/mergescopeinfo.h"
#include "pysource/scopeinfo/records/scopeinfokeyset.h"
#include "pysource/standalone/engine/filerows.h"
#include "pysource/standalone/engine/scanfiles.h"

namespace pysource::standalone {
namespace {

using scopeinfo::CScopeInfoKey;
using scopeinfo::CScopeInfoPtr;

class CMergeChecker {
 public:
  CMergeChecker(CEngine& engine, const CMergeCheckRequest& request)
      : _fEngine(engine), _fRequest(request) {
    for (const CFoundFile& file : request.found.files) {
      _fChecked.insert(file.loc);
    }
  }

  CMergeCheckReport Run() {
    const std::vector<CFoundFile>& files = _fRequest.found.files;
    size_t done = 0;
    ScanFiles(
        {files, _fRequest.jobs, _fEngine.DiskTimes(), _fEngine.Resolver(), _fRequest.is_cancelled},
        [&](const CScanJobResult& scanned) {
          for (const CScanResult& result : scanned.scan.results) {
            for (const CScopeInfoPtr& info : result.infos) {
              _fScanned[{info->loc, Text(info->for_scope)}].push_back(info);
            }
          }
          Progress(++done, PathForLocation(scanned.job.loc).value_or(""));
          return true;
        });
    if (done < files.size()) {
      _fReport.cancelled = true;
      return std::move(_fReport);
    }
    for (const CFoundFile& file : files) {
      if (_fRequest.is_cancelled != nullptr && _fRequest.is_cancelled()) {
        _fReport.cancelled = true;
        break;
      }
      CheckFile(file);
    }
    return std::move(_fReport);
  }

 private:
  void Progress(size_t done, const std::string& path) const {
    if (_fRequest.on_progress != nullptr) {
      _fRequest.on_progress(done, _fRequest.found.files.size(), path);
    }
  }

  void CheckFile(const CFoundFile& file) {
    const TextSet known = _fEngine.Cache().GetAllScopeNames(file.loc);
    std::vector<Text> names(known.begin(), known.end());
    for (const auto& [ref, infos] : ScannedOf(file.loc)) {
      if (!known.contains(ref) && IsPrimaryThere(*infos)) {
        Differ(file, ref, "was found by a scan, and the cache does not know it");
      }
    }
    std::sort(names.begin(), names.end());
    for (const Text& name : names) {
      CheckScope(file, name);
    }
  }

  // What the scanner found for the scopes of the file, by scope.
  std::vector<std::pair<Text, const std::vector<CScopeInfoPtr>*>> ScannedOf(Loc loc) {
    if (_fByFile.empty()) {
      for (const auto& [ref, infos] : _fScanned) {
        _fByFile[ref.loc].emplace_back(ref.scope, &infos);
      }
    }
    return _fByFile[loc];
  }

  static bool IsPrimary(const CScopeInfoKey& key) {
    return key.scan_name() == kPrimaryScan.name && key.scanned_scope() == key.for_scope();
  }
  static bool IsPrimaryThere(const std::vector<CScopeInfoPtr>& infos) {
    return std::any_of(infos.begin(), infos.end(),
                       [](const auto& info) { return IsPrimary(info->key); });
  }

  void CheckScope(const CFoundFile& file, const Text& name) {
    ++_fReport.scopes;
    scopeinfo::CNeedsScanDict needs_scan;
    const CScopeInfoPtr answer = _fEngine.Cache().GetScopeInfo(file.loc, name, true, &needs_scan);
    if (!needs_scan.empty()) {
      Differ(file, name, "is answered, but scans are asked for");
      return;
    }
    std::vector<CScopeInfoPtr> to_merge;
    std::vector<Loc> locs = _fEngine.SecondaryFiles(file.loc);
    locs.insert(locs.begin(), file.loc);
    for (const Loc loc : locs) {
      const EExpected expected = AddExpected(file, loc, name, to_merge);
      if (expected == EExpected::kElsewhere) {
        ++_fReport.from_elsewhere;
        return;
      }
      if (expected == EExpected::kDiffers) {
        return;
      }
    }
    if (to_merge.empty() || answer == nullptr) {
      if (to_merge.empty() != (answer == nullptr)) {
        Differ(file, name, answer == nullptr ? "is not answered" : "is answered from nothing");
      } else {
        ++_fReport.equal;
      }
      return;
    }
    const CScopeInfoPtr first = to_merge.front()->Copy(false, false);
    to_merge.erase(to_merge.begin());
    if (SameContent(*answer, *scopeinfo::MergeScopeInfoSeq(first, to_merge, {}))) {
      ++_fReport.equal;
      _fReport.merged += to_merge.empty() ? 0 : 1;
    } else {
      Differ(file, name, "is answered with another record than its scans give");
    }
  }

  enum class EExpected { kAdded, kDiffers, kElsewhere };

  // Adds the scanner's records of the scope in the order in which the cache holds them, the primary
  // one first; nothing where there is no primary one.
  EExpected AddExpected(const CFoundFile& file, Loc loc, const Text& name,
                        std::vector<CScopeInfoPtr>& to_merge) {
    std::vector<CScopeInfoKey> held;
    for (const scopeinfo::CHeldRecord& record : _fEngine.Cache().GetRecordsHeld(loc, name)) {
      held.push_back(record.key);
    }
    const auto scanned = _fScanned.find({loc, name});
    const size_t scanned_count = scanned == _fScanned.end() ? 0 : scanned->second.size();
    std::vector<CScopeInfoPtr> infos;
    for (const CScopeInfoKey& key : held) {
      if (!_fChecked.contains(key.scanned_loc())) {
        return EExpected::kElsewhere;
      }
      const CScopeInfoPtr* found = nullptr;
      for (size_t i = 0; i < scanned_count && found == nullptr; ++i) {
        found = scanned->second[i]->key == key ? &scanned->second[i] : nullptr;
      }
      if (found == nullptr) {
        Differ(file, name, "holds " + key.Repr() + ", which no scan finds");
        return EExpected::kDiffers;
      }
      infos.insert(IsPrimary(key) ? infos.begin() : infos.end(), *found);
    }
    if (infos.size() != scanned_count) {
      Differ(file, name, "lacks a record that a scan finds");
      return EExpected::kDiffers;
    }
    if (IsPrimaryThere(infos)) {
      to_merge.insert(to_merge.end(), infos.begin(), infos.end());
    }
    return EExpected::kAdded;
  }

  void Differ(const CFoundFile& file, const Text& scope, const std::string& how) {
    _fReport.differences.push_back({file.path, "scope " + Repr(scope) + " " + how});
  }

  CEngine& _fEngine;
  const CMergeCheckRequest& _fRequest;
  CLocSet _fChecked;  // the files of the tree
  std::unordered_map<CScopeRef, std::vector<CScopeInfoPtr>, CScopeRefHash> _fScanned;
  std::unordered_map<Loc, std::vector<std::pair<Text, const std::vector<CScopeInfoPtr>*>>> _fByFile;
  CMergeCheckReport _fReport;
};

}  // namespace

CMergeCheckReport CheckMerged(CEngine& engine, const CMergeCheckRequest& request) {
  return CMergeChecker(engine, request).Run();
}

}  // namespace pysource::standalone
