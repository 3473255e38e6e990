// Writing unwritten records to the database: one call for each file, with all of its records.
#include <algorithm>
#include <set>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/infocache/infocache.h"
#include "pysource/scopeinfo/records/vocabulary.h"

namespace pysource::scopeinfo {
namespace {

constexpr unsigned kWriteDelayMs = 500;
constexpr char kScanNameSep = ',';

// The names in the text, sorted. Two adjacent separators, or one at either end, make an empty name.
// An empty text has no names.
std::set<Text, std::less<>> SplitScansDone(TextView scans_done) {
  std::set<Text, std::less<>> names;
  if (scans_done.empty()) {
    return names;
  }
  for (;;) {
    const size_t end = scans_done.find(kScanNameSep);
    names.emplace(scans_done.substr(0, end));
    if (end == TextView::npos) {
      return names;
    }
    scans_done.remove_prefix(end + 1);
  }
}

Text JoinScansDone(const std::set<Text, std::less<>>& names) {
  Text text;
  for (const Text& name : names) {
    if (&name != &*names.begin()) {
      text += kScanNameSep;
    }
    text += name;
  }
  return text;
}

}  // namespace

void CInfoCache::WriteToDatabase() {
  CancelWriteToDatabaseTimeout();
  std::vector<CPerFilePtr> per_files;
  per_files.reserve(_fPerFileDict.size());
  for (const auto& [loc, per_file] : _fPerFileDict) {
    per_files.push_back(per_file);
  }
  WriteFilesToDatabase(per_files);
}

void CInfoCache::WriteToDatabase(const std::vector<Loc>& loc_seq) {
  CancelWriteToDatabaseTimeout();
  std::vector<CPerFilePtr> per_files;
  for (const Loc loc : loc_seq) {
    if (CPerFilePtr per_file = FindPerFile(loc)) {
      per_files.push_back(std::move(per_file));
    }
  }
  WriteFilesToDatabase(per_files);
}

void CInfoCache::WriteFilesToDatabase(const std::vector<CPerFilePtr>& per_files) {
  for (const CPerFilePtr& per_file : per_files) {
    bool cleared = false;
    if (per_file->clear_db) {
      cleared = Db().ClearInfoForFiles({per_file->loc});
      if (cleared) {
        per_file->clear_db = false;
        if (!per_file->fScansDone.empty()) {
          per_file->fScansDoneNeedsToBeWritten = true;
        }
      }
    }
    // Records are written only under a real disk time. The keys of a file that is modified in
    // memory or missing stay queued, without counting as failed, until it is on disk again.
    if (!(per_file->disk_mtime > kFileDoesNotExistMtime)) {
      continue;
    }
    if (_fCrossFileData.GetToWriteInfoKeyCount(per_file->loc) != 0) {
      WriteOneFileToDatabase(*per_file);
    } else if (!cleared) {
      // The pass that cleared the file holds back its scans done. The next pass writes them, when
      // the rows that they stand for may be there too.
      WriteScansDoneToDatabase(*per_file);
    }
  }
}

void CInfoCache::WriteOneFileToDatabase(CPerFileEntry& per_file) {
  const CScopeInfoKeySet key_set = _fCrossFileData.GetToWriteInfoKeys(per_file.loc);
  const auto [to_write_list, not_writable_set] = per_file.GetDatabaseRecords(key_set);
  bool saved = false;
  if (!to_write_list.empty()) {
    if (not_writable_set) {
      for (const CScopeInfoKey& info_key : *not_writable_set) {
        if (info_key.scan_name() == PrimaryScanName()) {
          // If the primary scan cannot be written completely, no scan counts as done.
          per_file.SetScansDone("");
          break;
        }
      }
    }
    // A copy: before the database has stored the text it may emit a signal, and a handler may make
    // the entry read its scans done anew.
    const Text scans_done = per_file.fScansDone;
    saved = Db().SaveDataForFile(per_file.loc, to_write_list, scans_done, per_file.disk_mtime);
  }
  if (kDevelopmentRun() && saved && !per_file.fScansDone.empty()) {
    const std::vector<Text> names_in_db =
        Db().ReadScopeNames(per_file.loc, PrimaryScanName(), per_file.disk_mtime);
    if (std::find(names_in_db.begin(), names_in_db.end(), kModuleScopeName) == names_in_db.end()) {
      PrintLine("__WriteOneFileToDatabase error: global scope not in db when scans_done != ''");
      PrintLine("loc = " + Repr(per_file.loc));
      PrintLine("scans done = " + Repr(per_file.fScansDone));
      PrintLine("names_in_db = " + Repr(names_in_db));
      PrintLine("to_write_list = " + Repr(to_write_list));
    }
  }
  if (!saved) {
    // The keys stay queued, but idle work no longer counts them as a reason to write.
    _fCrossFileData.AddCouldNotWriteInfoKeySet(key_set);
    return;
  }
  if (not_writable_set) {
    PrintLine("Not writable keys: " + Repr(*not_writable_set));
  }
  per_file.fScansDoneNeedsToBeWritten = false;
  // All keys, including those whose records cannot be written: the write as a whole succeeded, and
  // an incomplete record is not tried again until a scan renews it.
  for (const CScopeInfoKey& info_key : key_set) {
    _fCrossFileData.RemoveCouldNotWriteInfoKey(info_key);
    _fCrossFileData.RemoveToWriteInfoKey(info_key);
    _fCrossFileData.AddInDatabaseInfoKey(info_key);
    per_file.all_db_scope_names.emplace(info_key.for_scope());
  }
  if (per_file.IsPrimaryScanDone() && !per_file.all_db_scope_names.contains(kModuleScopeName)) {
    CriticalLog("__WriteOneFileToDatabase(%r): top level module scope is missing", per_file.loc);
    CriticalLog("  all_db_scope_names = %r", per_file.all_db_scope_names);
    Assert(false);
  }
  per_file.AfterSuccessfulDatabaseWrite(to_write_list);
}

void CInfoCache::WriteScansDoneToDatabase(CPerFileEntry& per_file) {
  Assert(per_file.disk_mtime > kFileDoesNotExistMtime);
  if (!per_file.fScansDoneNeedsToBeWritten) {
    return;
  }
  const Text scans_done = per_file.fScansDone;  // a copy, as above
  if (Db().SaveDataForFile(per_file.loc, {}, scans_done, per_file.disk_mtime)) {
    per_file.fScansDoneNeedsToBeWritten = false;
  }
}

void CInfoCache::ScheduleWriteToDatabaseTimeout() {
  // The condition is meant as it stands: a timer is armed only while one is pending, which is never
  // the case when DoIdle calls this. So a handful of records waits for the next explicit write or
  // for the threshold in DoIdle. Writing after every pause in typing cost more than it saved.
  if (_fTimeoutForWriteToDatabase != 0) {
    _fTimeoutForWriteToDatabase = velk::timeout_add(kWriteDelayMs, [this] {
      CB_WriteToDatabaseTimeout();
      return false;
    });
  }
}

void CInfoCache::CancelWriteToDatabaseTimeout() {
  if (_fTimeoutForWriteToDatabase != 0) {
    velk::timeout_remove(_fTimeoutForWriteToDatabase);
    _fTimeoutForWriteToDatabase = 0;
  }
}

void CInfoCache::CB_WriteToDatabaseTimeout() {
  _fTimeoutForWriteToDatabase = 0;
  if (!_fCrossFileData._fAllToWriteInfoKeys.empty()) {
    WriteToDatabase();
  }
}

CScansDoneDict CInfoCache::GetScansDoneForMultipleFiles(const CLocMtimeDict& loc_mtime_dict) {
  CScansDoneDict result_dict;
  CLocMtimeDict for_db_dict;
  for (const auto& [loc, mtime] : loc_mtime_dict) {
    const CPerFilePtr per_file = FindPerFile(loc);
    if (per_file != nullptr && per_file->disk_mtime == mtime) {
      result_dict.Set(loc, per_file->fScansDone);
    } else {
      for_db_dict.Set(loc, mtime);
    }
  }
  if (!for_db_dict.empty()) {
    for (const auto& [loc, scans_done] : Db().GetScansDone(for_db_dict)) {
      result_dict.Set(loc, scans_done);
    }
  }
  return result_dict;
}

void CInfoCache::ChangeScansDone(Loc loc, TextView scan_name, bool done) {
  const CPerFilePtr per_file = GetPerFile(loc, true);
  std::set<Text, std::less<>> scan_name_set = SplitScansDone(per_file->fScansDone);
  if (done == scan_name_set.contains(scan_name)) {
    return;
  }
  // With `done` false the name is in the list at this point, and stays: the only effect is that the
  // list gets sorted. To forget scans, callers use SetScansDone("") on the entry. The scans that a
  // change makes necessary are reported by kNeedsScanAdded, whatever this list says.
  scan_name_set.emplace(scan_name);
  per_file->SetScansDone(JoinScansDone(scan_name_set));
  if (AssertionsActive() && scan_name == PrimaryScanName()) {
    const TextSet all_scope_names = per_file->GetAllScopeNames();
    if (!all_scope_names.contains(kModuleScopeName)) {
      CriticalLog("module scope not in all scope names: %s", per_file->loc);
      CriticalLog("  all scope names: %s", all_scope_names);
      Assert(false);
    }
  }
}

}  // namespace pysource::scopeinfo
