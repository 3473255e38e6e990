#include "tests/fakes/memorydb.h"

#include <algorithm>
#include <utility>

#include "pysource/host/errors.h"
#include "pysource/host/repr.h"
#include "pysource/host/symbolinfo.h"

namespace pysource::fakes {
namespace {

CMemoryDbRowKey KeyOf(const CDatabaseRecord& record) {
  const auto scanned =
      record.scanned_loc ? std::optional<Text>(record.scanned_loc->fUrl) : std::nullopt;
  return {record.for_scope, record.scan_name, scanned, record.scanned_scope};
}

// A copy that shares nothing with the original and has one scopes-seen entry for each file.
CDatabaseRecord CopyOf(const CDatabaseRecord& record) {
  CDatabaseRecord copy = record;
  if (record.scopes_seen) {
    copy.scopes_seen = std::make_shared<CScopesSeenDict>();
    for (const auto& [scope, mtime] : *record.scopes_seen) {
      copy.scopes_seen->Set(CScopeRef{scope.loc, Text(kWildcardScope)}, mtime);
    }
  }
  return copy;
}

bool Contains(const std::vector<Text>& names, TextView name) {
  return std::find(names.begin(), names.end(), name) != names.end();
}

}  // namespace

CMemoryAnalysisDb::CMemoryAnalysisDb(std::shared_ptr<CMemoryDbStore> store)
    : fStore(std::move(store)), _fChangesSeen(fStore->changes.size()) {}

CMemoryAnalysisDb::~CMemoryAnalysisDb() { destroy(); }

const CMemoryDbFile* CMemoryAnalysisDb::FileAt(Loc loc, DiskTime disk_mtime) const {
  const auto file = fStore->files.find(loc);
  return file != fStore->files.end() && file->second.disk_time == disk_mtime ? &file->second
                                                                             : nullptr;
}

void CMemoryAnalysisDb::NoteRead(Text call) {
  fCalls.push_back(std::move(call));
  fOnCall();
  if (fFailReads > 0 && fGoodReads-- <= 0) {
    --fFailReads;
    throw CValueError("memory database: told to fail: " + fCalls.back());
  }
}

size_t CMemoryAnalysisDb::CallCount(TextView operation) const {
  return static_cast<size_t>(
      std::count_if(fCalls.begin(), fCalls.end(), [operation](const Text& call) {
        return TextView(call).substr(0, call.find(' ')) == operation;
      }));
}

std::vector<Text> CMemoryAnalysisDb::ReadScopeNames(Loc loc, TextView primary_scan_name,
                                                    DiskTime disk_mtime) {
  NoteRead(FormatPercent("ReadScopeNames %s %r %r", {loc->fUrl, primary_scan_name, disk_mtime}));
  std::set<Text> names;
  if (const CMemoryDbFile* file = FileAt(loc, disk_mtime)) {
    for (const auto& [key, row] : file->rows) {
      if (row.scan_name && *row.scan_name == primary_scan_name) {
        names.insert(row.for_scope);
      }
    }
  }
  return {names.begin(), names.end()};
}

std::vector<CDatabaseRecord> CMemoryAnalysisDb::ReadScopeDataRecords(
    Loc loc, const std::vector<Text>& scan_names, const std::vector<Text>& scope_names,
    DiskTime disk_mtime) {
  NoteRead(FormatPercent("ReadScopeDataRecords %s %r %r %r",
                         {loc->fUrl, scan_names, scope_names, disk_mtime}));
  std::vector<CDatabaseRecord> result;
  if (const CMemoryDbFile* file = FileAt(loc, disk_mtime)) {
    for (const auto& [key, row] : file->rows) {
      if (row.scan_name && Contains(scan_names, *row.scan_name) &&
          (Contains(scope_names, kWildcardScope) || Contains(scope_names, row.for_scope))) {
        result.push_back(CopyOf(row));
      }
    }
  }
  return result;
}

CScansDoneDict CMemoryAnalysisDb::GetScansDone(const CLocMtimeDict& loc_mtime_dict) {
  NoteRead(FormatPercent("GetScansDone %r", {loc_mtime_dict}));
  CScansDoneDict result;
  for (const auto& [loc, mtime] : loc_mtime_dict) {
    if (const CMemoryDbFile* file = FileAt(loc, mtime)) {
      result.Set(loc, file->scans_done);
    }
  }
  return result;
}

bool CMemoryAnalysisDb::SaveDataForFile(Loc loc, const std::vector<CDatabaseRecord>& records,
                                        TextView scans_done, DiskTime disk_mtime) {
  fCalls.push_back(FormatPercent("SaveDataForFile %s %d records %r %r",
                                 {loc->fUrl, records.size(), scans_done, disk_mtime}));
  fOnCall();
  if (fFailSaves > 0) {
    --fFailSaves;
    return false;
  }
  if (const CMemoryDbFile* held = FileAt(loc, disk_mtime);
      held != nullptr && records.empty() && held->scans_done == scans_done) {
    return true;  // and nothing has changed
  }
  CMemoryDbFile& file = fStore->files[loc];
  if (file.disk_time != disk_mtime) {
    file = {};
  }
  file.disk_time = disk_mtime;
  file.scans_done = scans_done;
  for (const CDatabaseRecord& record : records) {
    file.rows[KeyOf(record)] = CopyOf(record);
  }
  fStore->changes.emplace_back(loc, this);
  return true;
}

bool CMemoryAnalysisDb::ClearInfoForFiles(const std::vector<Loc>& loc_list) {
  fCalls.push_back(FormatPercent("ClearInfoForFiles %r", {loc_list}));
  fOnCall();
  if (fFailClears > 0) {
    --fFailClears;
    return false;
  }
  for (const Loc loc : loc_list) {
    if (fStore->files.erase(loc) != 0) {
      fStore->changes.emplace_back(loc, this);
    }
  }
  return true;
}

std::vector<CImportEquiv> CMemoryAnalysisDb::GetAllImports(const std::vector<Loc>& db_locs,
                                                           TextView primary_scan_name) {
  NoteRead(FormatPercent("GetAllImports %r %r", {db_locs, primary_scan_name}));
  std::vector<CImportEquiv> result;
  for (const Loc loc : db_locs) {
    const auto file = fStore->files.find(loc);
    if (file == fStore->files.end()) {
      continue;
    }
    for (const auto& [key, row] : file->second.rows) {
      if (row.scan_name && *row.scan_name == primary_scan_name) {
        for (const BytesView item : NonNestedSplit(row.import_equivs, ';')) {
          result.push_back({loc, row.for_scope, Bytes(item)});
        }
      }
    }
  }
  return result;
}

std::vector<CClassEquiv> CMemoryAnalysisDb::GetAllClasses(const std::vector<Loc>& db_locs,
                                                          TextView primary_scan_name) {
  NoteRead(FormatPercent("GetAllClasses %r %r", {db_locs, primary_scan_name}));
  std::vector<CClassEquiv> result;
  for (const Loc loc : db_locs) {
    const auto file = fStore->files.find(loc);
    if (file == fStore->files.end()) {
      continue;
    }
    for (const auto& [key, row] : file->second.rows) {
      if (row.scan_name && *row.scan_name == primary_scan_name) {
        for (const BytesView item : NonNestedSplit(row.class_equivs, ';')) {
          result.push_back({loc, Bytes(item)});
        }
      }
    }
  }
  return result;
}

Text CMemoryAnalysisDb::CheckForExternalChanges() {
  fCalls.emplace_back("CheckForExternalChanges");
  CLocSet changed;
  for (; _fChangesSeen < fStore->changes.size(); ++_fChangesSeen) {
    const auto& [loc, writer] = fStore->changes[_fChangesSeen];
    if (writer != this) {
      changed.insert(loc);
    }
  }
  if (std::exchange(fReplaced, false)) {
    emit(kExternalDbContentsChanged, nullptr);
    return "replaced";
  }
  if (!changed.empty()) {
    emit(kExternalDbContentsChanged, &changed);
  }
  return std::to_string(changed.size()) + " files changed";
}

}  // namespace pysource::fakes
