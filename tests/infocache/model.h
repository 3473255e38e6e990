// The info cache once more, for the random test: as naive as it can be, in plain sets and maps,
// with no index, no sharing of work and nothing of the cache's own code but keys as a text form and
// the encoded bytes of records. It never looks at the cache.
//
// Where the order of a set or the choice of names for a batched read is free, it takes the order or
// the choice that the cache made (fOrderHint, fReadsMade) and checks that the choice was allowed.
// The operations of the cache have their names there.
#pragma once

#include <algorithm>
#include <array>
#include <deque>
#include <exception>
#include <functional>
#include <map>
#include <memory>
#include <optional>
#include <set>
#include <tuple>
#include <utility>
#include <vector>

#include "pysource/host/assertions.h"
#include "pysource/host/repr.h"
#include "pysource/host/symbolinfo/infobytes.h"
#include "pysource/scopeinfo/records/vocabulary.h"
#include "tests/fakes/cachehost.h"

namespace pysource::scopeinfo {

struct CModel {
  using Ref = std::pair<Loc, Text>;
  // For which file and scope, by which scan, scanned from which file and scope.
  using Key = std::tuple<Loc, Text, Text, Loc, Text>;
  using KeySet = std::set<Key>;
  using Names = std::set<Text>;
  using NeedsDict = std::map<Ref, Names>;
  using Triple = std::tuple<Loc, Text, Text>;

  struct CAssertionFailed {};
  enum class Idle { kCache, kMergedTrim };
  using MergedKey = std::tuple<Loc, Text, std::vector<Loc>>;
  using Changed = std::vector<std::pair<Loc, std::shared_ptr<Names>>>;

  // What a record says; found again by its encoded bytes.
  struct CContent {
    std::map<Text, Bytes> equivs;
    bool missing = false;
  };
  struct CInfo {
    Key key;
    CContent content;
    std::optional<DiskTime> mtime;
    bool incomplete = false;
    CScopesSeenPtr seen;
    Bytes encoded;
  };
  using Info = std::shared_ptr<CInfo>;
  struct CMerged {
    std::vector<Info> infos;  // the first one was copied, the others merged into it, in this order
    std::optional<DiskTime> mtime;
  };
  using Merged = std::shared_ptr<CMerged>;
  struct CRecord {
    Key key;
    Bytes data;  // all four parts
    CScopesSeenPtr seen;
    bool incomplete = false;
  };
  struct CFile {
    Loc loc;
    DiskTime mtime = 0;
    std::map<Text, Info> primary;
    Names all_db;
    Names unread;
    std::map<Text, std::vector<CRecord>> records;
    bool clear_db = false;
    bool db_changed = true;
    Text done;
    bool done_unwritten = true;
  };
  using File = std::shared_ptr<CFile>;
  struct CMergedEntry {
    MergedKey key;
    Merged value;
    NeedsDict needs;
    std::set<Ref> rests_on;
  };

  static constexpr DiskTime kEdited = -1.0;
  static constexpr DiskTime kMissing = 0.0;

  CModel(fakes::CCacheHost& host, fakes::CMemoryAnalysisDb& db, CInfoCacheLimits limits,
         std::vector<Text> scan_names)
      : fHost(host), fDb(db), fLimits(limits), fScanNames(std::move(scan_names)) {}

  static Loc ForLoc(const Key& key) { return std::get<0>(key); }
  static const Text& ForScope(const Key& key) { return std::get<1>(key); }
  static const Text& Scan(const Key& key) { return std::get<2>(key); }
  static Loc ScannedLoc(const Key& key) { return std::get<3>(key); }
  static const Text& ScannedScope(const Key& key) { return std::get<4>(key); }
  static Triple TripleOf(const Key& key) { return {ScannedLoc(key), ScannedScope(key), Scan(key)}; }
  static bool IsFilteredIn(const Names* names, const Text& name) {
    return names == nullptr || names->contains("*") || names->contains(name);
  }
  const Text& Primary() const { return fScanNames[0]; }

  // Remembers what the record's bytes say.
  static void Learn(const CInfo& info) { Contents()[info.encoded] = info.content; }

  static std::map<Bytes, CContent>& Contents() {
    static std::map<Bytes, CContent> contents;
    return contents;
  }

  static Text TextOf(const Key& key) {
    return CScopeInfoKey(ForLoc(key), ForScope(key), Scan(key), ScannedLoc(key), ScannedScope(key))
        .Repr();
  }

  void Check(bool holds) const {
    if (!holds && AssertionsActive()) throw CAssertionFailed();
  }

  // ---- Keys.

  KeySet Keys(const KeySet& of, Loc for_loc, const Names* scopes = nullptr) const {
    KeySet keys;
    for (const Key& key : of) {
      if (ForLoc(key) == for_loc && IsFilteredIn(scopes, ForScope(key))) keys.insert(key);
    }
    return keys;
  }

  KeySet ScannedKeys(const KeySet& of, Loc scanned_loc, const Names* scopes = nullptr,
                     const Names* scans = nullptr) const {
    KeySet keys;
    for (const Key& key : of) {
      if (ScannedLoc(key) == scanned_loc && IsFilteredIn(scopes, ScannedScope(key)) &&
          IsFilteredIn(scans, Scan(key))) {
        keys.insert(key);
      }
    }
    return keys;
  }

  size_t ToWriteCount(Loc loc) const { return Keys(W, loc).size(); }
  size_t ToWriteCount(Loc loc, const Text& scope) const {
    const Names names{scope};
    return Keys(W, loc, &names).size();
  }

  void AddKey(const Key& key, const Info& info, bool remove_needs_scan) {
    M.insert(key);
    if (remove_needs_scan) N.erase(key);
    UpdateExisting(key, info);
  }

  void RemoveKey(const Key& key) {
    for (KeySet* set : {&M, &N, &D, &W, &C}) set->erase(key);
    fExisting.erase(key);
    fDependentScans[key] = {};
  }

  void AddNeedsScan(const Key& key) {
    if (M.contains(key)) {
      W.erase(key);
      C.erase(key);
      N.insert(key);
    }
  }

  void AddToWrite(const Key& key) {
    Check(M.contains(key));
    D.erase(key);
    W.insert(key);
  }

  void UpdateExisting(const Key& key, const Info& info) {
    if (info == nullptr) {
      fExisting.erase(key);
      return;
    }
    fExisting[key] = info;
    if (info->seen != nullptr) {
      fDependentScans[key] = {};
      for (const auto& [ref, mtime] : *info->seen)
        fDependentScans[key].insert({ref.loc, ref.scope});
    }
  }

  KeySet DependentKeys(Loc loc, const Text& scope) const {
    KeySet keys;
    for (const auto& [key, refs] : fDependentScans) {
      for (const Ref& ref : refs) {
        if (ref.first == loc && (ref.second == scope || ref.second == "*" || scope == "*")) {
          keys.insert(key);
        }
      }
    }
    return keys;
  }

  // ---- One file.

  void ClearAllInfo(CFile& file, bool clear_db) {
    file.primary.clear();
    file.records.clear();
    for (const Key& key : Keys(M, file.loc)) RemoveKey(key);
    file.clear_db = file.clear_db || clear_db;
    UpdateUnread(file);
  }

  void UpdateUnread(CFile& file) {
    file.unread.clear();
    for (const Text& name : file.all_db) {
      if (!file.records.contains(name)) file.unread.insert(name);
    }
  }

  void SetScansDone(CFile& file, const Text& done) {
    if (done != file.done) {
      file.done = done;
      file.done_unwritten = true;
    }
  }

  bool IsDone(const CFile& file, const Text& scan) const {
    return file.done.find(scan) != Text::npos;
  }

  void UpdateDiskMtime(CFile& file, DiskTime mtime, std::map<Loc, KeySet>& keys_dict) {
    const DiskTime old = file.mtime;
    if (mtime == old) return;
    file.mtime = mtime;
    file.all_db.clear();
    UpdateUnread(file);
    for (const Key& key : Keys(D, file.loc)) D.erase(key);
    if (mtime != kEdited && old != kEdited) {
      const KeySet keys = ScannedKeys(M, file.loc);
      for (const Key& key : keys) AddNeedsScan(key);
      if (!keys.empty()) keys_dict[file.loc] = keys;
      SetScansDone(file, "");
      return;
    }
    if (mtime != kEdited) {
      for (const Key& key : Keys(M, file.loc)) {
        if (!N.contains(key)) AddToWrite(key);
      }
    }
    for (const auto& [scope, info] : file.primary) info->mtime = mtime;
    for (const auto& [scope, records] : file.records) {
      for (const CRecord& record : records) {
        if (record.seen != nullptr) {
          for (auto& [ref, time] : *record.seen) {
            if (ref.loc == file.loc && static_cast<float>(time) == old) time = mtime;
          }
        }
      }
    }
  }

  size_t Count(const CFile& file, const Text& scope) const {
    const auto records = file.records.find(scope);
    return records == file.records.end() ? 0 : records->second.size();
  }

  Names AllNames(const CFile& file) const {
    Names names = file.mtime == kEdited ? Names() : file.unread;
    for (const auto& [scope, records] : file.records) names.insert(scope);
    return names;
  }

  bool CheckScopesSeen(const CFile& file, const CScopesSeenDict& seen) {
    for (const auto& [ref, mtime] : seen) {
      const File found = Find(ref.loc);
      const DiskTime now = found != nullptr      ? found->mtime
                           : ref.loc == file.loc ? file.mtime
                                                 : GetPerFile(ref.loc, true)->mtime;
      if (now != mtime) return false;
    }
    return true;
  }

  CInfo Decode(const CFile& file, const CRecord& record) const {
    const Bytes encoded = record.data.substr(0, record.data.find('\0'));
    return {record.key, Contents().at(encoded), file.mtime, record.incomplete, nullptr, encoded};
  }

  std::optional<std::vector<Info>> ListToMerge(CFile& file, const Text& scope, std::set<Ref>& seen,
                                               NeedsDict& needs_scan) {
    if (!file.records.contains(scope)) return std::nullopt;
    std::vector<Info> list;
    Info primary;
    for (const CRecord& record : file.records[scope]) {
      if (record.seen != nullptr) {
        for (const auto& [ref, time] : *record.seen) seen.insert({ref.loc, ref.scope});
      }
      const Ref scanned{ScannedLoc(record.key), ScannedScope(record.key)};
      Info info;
      if (N.contains(record.key)) {
        needs_scan[scanned].insert(Scan(record.key));
      } else if (fExisting.contains(record.key)) {
        info = fExisting[record.key];
      } else if (record.seen == nullptr || CheckScopesSeen(file, *record.seen)) {
        info = std::make_shared<CInfo>(Decode(file, record));
        UpdateExisting(record.key, info);
      } else {
        AddNeedsScan(record.key);
        needs_scan[scanned].insert(Scan(record.key));
        ++fRoadsTaken[0];
      }
      if (info == nullptr || info->content.missing) continue;
      if (scanned.second == scope && Scan(record.key) == Primary()) {
        if (primary == nullptr) {
          primary = info;
          file.primary[scope] = info;
          list.insert(list.begin(), info);
        }
        seen.insert({file.loc, scope});
      } else {
        list.push_back(info);
      }
    }
    if (primary == nullptr) {
      needs_scan[{file.loc, scope}].insert(Primary());
      return std::nullopt;
    }
    return list;
  }

  bool Store(CFile& file, const Info& info) {
    Learn(*info);
    Bytes classes;
    Bytes imports;
    const auto append = [](Bytes& to, BytesView item) { (to += to.empty() ? "" : ";") += item; };
    if (ForScope(info->key) == ScannedScope(info->key)) {
      for (const auto& [name, eq] : info->content.equivs) {
        const bool is_class = eq.find(":c") != Bytes::npos;
        const bool is_import = eq.find(":i") != Bytes::npos || eq.find(":f") != Bytes::npos;
        const bool is_list = eq.find(';') != Bytes::npos;
        for (const BytesView item : NonNestedSplit(eq, ';')) {
          if (is_class && (!is_list || item.starts_with(":c"))) {
            append(classes, item);
          } else if (!is_class && is_import &&
                     (!is_list || item.starts_with(":i") || item.starts_with(":f"))) {
            append(imports, item);
          }
        }
      }
    }
    return SetRecord(file, info->key, info->encoded, classes, imports, true, info->seen,
                     info->incomplete, info);
  }

  bool SetRecord(CFile& file, const Key& key, const Bytes& data, const Bytes& classes,
                 const Bytes& imports, bool needs_db_write, const CScopesSeenPtr& seen,
                 bool incomplete, const Info& info) {
    const Bytes zero(1, '\0');
    const CRecord fresh{
        key, data + zero + classes + zero + imports + zero + (needs_db_write ? "1" : "0"), seen,
        incomplete};
    const bool had_list = file.records.contains(ForScope(key));
    std::vector<CRecord>& records = file.records[ForScope(key)];
    if (!had_list) file.unread.erase(ForScope(key));
    for (CRecord& record : records) {
      if (record.key != key) continue;
      const Bytes old = record.data;
      record = fresh;
      const bool modified =
          old.substr(0, old.size() - 1) != fresh.data.substr(0, fresh.data.size() - 1);
      AddKey(key, info, true);
      if (file.mtime != kEdited && (modified || !D.contains(key))) AddToWrite(key);
      return modified;
    }
    records.push_back(fresh);
    AddKey(key, info, true);
    if (ValidOnDiskMtime(file.mtime) && !D.contains(key)) AddToWrite(key);
    return true;
  }

  bool RemoveRecords(CFile& file, const Text& scan, const Text& scope, Loc scanned_loc,
                     const Text& scanned_scope) {
    if (!file.records.contains(scope)) return false;
    std::vector<CRecord>& records = file.records[scope];
    for (size_t i = 0; i < records.size(); ++i) {
      const Key key = records[i].key;
      if (ScannedLoc(key) == scanned_loc && ScannedScope(key) == scanned_scope &&
          (scan == "*" || scan == Scan(key))) {
        records.erase(records.begin() + static_cast<ptrdiff_t>(i));
        RemoveKey(key);
        return true;
      }
    }
    return false;
  }

  // ---- Files.

  File Find(Loc loc) const {
    for (const auto& [each, file] : fFiles) {
      if (each == loc) return file;
    }
    return nullptr;
  }

  File GetPerFile(Loc loc, bool create) {
    File file = Find(loc);
    if (file == nullptr) {
      if (!create) return nullptr;
      file = std::make_shared<CFile>();
      file->loc = loc;
      file->mtime = GetDiskMTime(loc);
      file->db_changed = file->mtime != kEdited;
      fFiles.emplace_back(loc, file);
      fWatched.insert(loc);
    }
    if (!ValidOnDiskMtime(file->mtime) || !file->db_changed) return file;
    file->db_changed = false;
    const std::vector<Text> names = fDb.ReadScopeNames(loc, Primary(), file->mtime);
    file->all_db = Names(names.begin(), names.end());
    UpdateUnread(*file);
    if (file->all_db.empty()) {
      SetScansDone(*file, "");
    } else {
      CLocMtimeDict time;
      time.Set(loc, file->mtime);
      const CScansDoneDict done = fDb.GetScansDone(time);
      file->done = done.Find(loc) == nullptr ? "" : *done.Find(loc);
      if (IsDone(*file, Primary()) && !file->all_db.contains("")) {
        SetScansDone(*file, "");
        ++fRoadsTaken[1];
      }
    }
    file->done_unwritten = false;
    return file;
  }

  DiskTime GetDiskMTime(Loc loc) {
    if (const auto buffer = fHost.fCacheMgr.fBuffers.find(loc);
        buffer != fHost.fCacheMgr.fBuffers.end()) {
      return buffer->second.fModified ? kEdited : buffer->second.fModTime;
    }
    const fakes::CFakeLocation& fake = fakes::CCacheHost::Fake(loc);
    return fake.fAsync && fake.fInspectTime == 0 ? 1.0 : fHost.TimeOf(loc);
  }

  std::vector<Loc> GetSecondaryFiles(Loc loc) {
    if (!fSecondary.contains(loc)) {
      fAsked.push_back(loc);
      fSecondary[loc] = fHost.fFactory.fSecondary[loc];
      for (const Loc other : fSecondary[loc]) fReverseSecondary[other].insert(loc);
    }
    return fSecondary[loc];
  }

  // ---- Reading.

  bool IsContentThere(const CFile& file) const {
    return file.mtime == kEdited || fakes::CCacheHost::Fake(file.loc).fExists;
  }

  void ReadSecondary(Loc other, CFile& other_file, const Text& scope, NeedsDict& needs_scan) {
    if (other_file.unread.contains(scope)) ReadList(other_file, {scope});
    if (Count(other_file, scope) == 0 && !IsDone(other_file, Primary()) &&
        fakes::CCacheHost::Fake(other).fExists) {
      needs_scan[{other, scope}].insert(Primary());
    }
  }

  Merged GetScopeInfo(Loc loc, const Text& scope, bool merge_secondary,
                      NeedsDict* needs_scan_dict) {
    const File file = GetPerFile(loc, true);
    const std::vector<Loc> others = merge_secondary ? GetSecondaryFiles(loc) : std::vector<Loc>();
    const MergedKey key{loc, scope, others};
    for (size_t i = 0; i < fMerged.size(); ++i) {
      if (fMerged[i].key == key) {
        const CMergedEntry hit = fMerged[i];
        fMerged.erase(fMerged.begin() + static_cast<ptrdiff_t>(i));
        fMerged.push_front(hit);
        if (needs_scan_dict != nullptr) *needs_scan_dict = hit.needs;
        MarkReturned({loc, scope});
        hit.value->mtime = file->mtime;
        ++fRoadsTaken[2];
        return hit.value;
      }
    }
    std::set<Ref> seen;
    NeedsDict own;
    NeedsDict& needs_scan = needs_scan_dict == nullptr ? own : *needs_scan_dict;
    if (Count(*file, scope) == 0) {
      if (file->unread.contains(scope)) {
        ReadList(*file, {scope});
      } else {
        bool in_no_file = true;
        if (!IsDone(*file, Primary()) && IsContentThere(*file)) {
          needs_scan[{loc, scope}].insert(Primary());
        }
        if (scope.empty() && IsDone(*file, Primary()) && IsContentThere(*file)) {
          needs_scan[{loc, scope}].insert(Primary());
          ++fRoadsTaken[3];
        }
        for (const Loc other : others) {
          const File other_file = GetPerFile(other, true);
          if (Count(*other_file, scope) != 0) {
            in_no_file = false;
            continue;
          }
          in_no_file = in_no_file && !other_file->unread.contains(scope);
          ReadSecondary(other, *other_file, scope, needs_scan);
        }
        if (in_no_file) return nullptr;
      }
    }
    std::optional<std::vector<Info>> list = ListToMerge(*file, scope, seen, needs_scan);
    for (const Loc other : others) {
      const File other_file = GetPerFile(other, true);
      if (Count(*other_file, scope) == 0) ReadSecondary(other, *other_file, scope, needs_scan);
      const auto other_list = ListToMerge(*other_file, scope, seen, needs_scan);
      if (other_list && list) {
        list->insert(list->end(), other_list->begin(), other_list->end());
        ++fRoadsTaken[4];
      } else if (other_list) {
        list = other_list;
      }
    }
    if (!list) return nullptr;
    const Merged merged = std::make_shared<CMerged>(CMerged{*list, list->front()->mtime});
    for (const auto& [ref, scans] : needs_scan) seen.insert(ref);
    fMerged.push_front({key, merged, needs_scan, seen});
    if (static_cast<ptrdiff_t>(fMerged.size()) > fLimits.kMaxInfoCount &&
        std::count(fIdles.begin(), fIdles.end(), Idle::kMergedTrim) == 0) {
      fIdles.push_back(Idle::kMergedTrim);
    }
    MarkReturned({loc, scope});
    return merged;
  }

  std::vector<Merged> GetMultipleScopeInfos(Loc loc, const std::vector<Text>& scopes) {
    const File file = GetPerFile(loc, true);
    Names wanted;
    for (const Text& scope : scopes) {
      if (!file->records.contains(scope)) wanted.insert(scope);
    }
    if (!wanted.empty()) ReadList(*file, {wanted.begin(), wanted.end()});
    std::vector<Merged> result;
    for (const Text& scope : scopes) result.push_back(GetScopeInfo(loc, scope, true, nullptr));
    return result;
  }

  Names GetAllScopeNames(Loc loc, bool instances, bool secondary) {
    Names names = AllNames(*GetPerFile(loc, true));
    if (secondary) {
      for (const Loc other : GetSecondaryFiles(loc)) {
        names.merge(GetAllScopeNames(other, false, false));
      }
    }
    if (!instances) std::erase_if(names, [](const Text& name) { return name.ends_with(":"); });
    return names;
  }

  std::vector<Text> NamesToRead(const CFile& file, const Text& scope) {
    const auto room = fLimits.kMaxInfoCount - static_cast<ptrdiff_t>(fUsed.size());
    const auto unread = static_cast<ptrdiff_t>(file.unread.size());
    if (!file.unread.contains(scope)) return {};
    if (unread < fLimits.kMaxForAllScopeRead && unread <= room &&
        2 * static_cast<ptrdiff_t>(file.primary.size()) < fLimits.kMaxForAllScopeRead) {
      return {"*"};
    }
    if (scope.empty()) return {""};
    const ptrdiff_t most = std::min(room, fLimits.kMaxForAllScopeRead);
    std::vector<Text> result{scope};
    if (most > 0 && file.unread.contains("")) result.emplace_back("");
    // Which neighbours ride along is free, how many is not.
    const auto may_ride = unread - static_cast<ptrdiff_t>(result.size());
    const auto ride =
        std::max<ptrdiff_t>(0, std::min(may_ride, most - static_cast<ptrdiff_t>(result.size())));
    const std::vector<Text>& made = fReadsMade.at(fDb.CallCount("ReadScopeDataRecords"));
    Names riders(made.begin(), made.end());
    for (const Text& name : result) {
      EXPECT_EQ(riders.erase(name), 1U) << "the read left out " << Repr(name);
    }
    EXPECT_EQ(made.size(), result.size() + static_cast<size_t>(ride));
    for (const Text& name : riders) {
      EXPECT_TRUE(file.unread.contains(name)) << Repr(name) << " is not unread";
    }
    ++fRoadsTaken[5];
    return made;
  }

  void ReadList(CFile& file, std::vector<Text> scopes) {
    if (static_cast<ptrdiff_t>(fUsed.size()) + 1 >= fLimits.kMaxInfoCount) {
      TrimNotModified(fLimits.kMaxInfoCount - 3 * fLimits.kMaxForAllScopeRead, &file);
    }
    if (scopes.size() == 1) scopes = NamesToRead(file, scopes[0]);
    if (scopes.empty()) return;
    const bool whole = std::count(scopes.begin(), scopes.end(), "*") != 0;
    for (const CDatabaseRecord& row :
         fDb.ReadScopeDataRecords(file.loc, fScanNames, scopes, file.mtime)) {
      const Key key{row.for_loc, row.for_scope, *row.scan_name, row.scanned_loc,
                    *row.scanned_scope};
      if (M.contains(key)) {
        if (!whole) ++fRoadsTaken[6];
        continue;
      }
      AddKey(key, nullptr, false);
      D.insert(key);
      SetRecord(file, key, row.data, "", "", false, row.scopes_seen, false, nullptr);
      if (row.scopes_seen != nullptr) {
        for (const auto& [ref, time] : *row.scopes_seen) {
          if (!ValidOnDiskMtime(time)) AddNeedsScan(key);
        }
      }
      MarkPresent({row.for_loc, row.for_scope});
    }
    ScheduleIdle();
  }

  void MarkReturned(const Ref& ref) {
    std::erase_if(fUsed, [&](const auto& used) { return used.first == ref; });
    fUsed.insert(fUsed.begin(), {ref, true});
  }

  void MarkPresent(const Ref& ref) {
    if (std::none_of(fUsed.begin(), fUsed.end(),
                     [&](const auto& used) { return used.first == ref; })) {
      fUsed.push_back({ref, false});
    }
  }

  // ---- Adding.

  bool AddScopeInfo(const Info& info, bool allow_write) {
    const Key key = info->key;
    const File file = GetPerFile(ForLoc(key), true);
    if (info->mtime && *info->mtime != file->mtime) {
      const DiskTime now = GetDiskMTime(file->loc);
      if (now != *info->mtime) {
        ++fRoadsTaken[7];
        return false;
      }
      std::map<Loc, KeySet> keys_dict;
      UpdateDiskMtime(*file, now, keys_dict);
      if (!keys_dict.empty()) {
        if (keys_dict.contains(file->loc)) keys_dict[file->loc].erase(key);
        InvalidateScans(keys_dict, true, 2);
      }
    }
    const KeySet dep_keys = DependentKeys(ForLoc(key), ForScope(key));
    if (!StoreAndPurge(*file, info)) return false;
    std::set<Triple> needs_scan;
    if (!dep_keys.empty()) MaybeInvalidate(*info, dep_keys, needs_scan);
    MarkPresent({ForLoc(key), ForScope(key)});
    D.erase(key);
    AddToWrite(key);
    if (Scan(key) == Primary() && ForScope(key) == ScannedScope(key)) {
      file->primary[ForScope(key)] = info;
    }
    if (!needs_scan.empty()) EmitNeedsScan(needs_scan, std::nullopt);
    Changed changed;
    AddChanged(changed, file->loc, ForScope(key));
    AddPrimaryFiles(changed);
    EmitChanged(changed);
    allow_write ? DoIdle() : ScheduleIdle();
    return true;
  }

  bool StoreAndPurge(CFile& file, const Info& info) {
    const bool needed_scan = N.contains(info->key);
    const bool changed = Store(file, info);
    if (!changed && needed_scan) {
      PurgeMerged(ScannedLoc(info->key), {ScannedScope(info->key)});
      ++fRoadsTaken[8];
    }
    return changed;
  }

  void AddScopeInfoListForSingleScan(Loc scanned_loc, const Text& scanned_scope, const Text& scan,
                                     const std::vector<Info>& infos, bool allow_write) {
    Changed changed;
    std::set<Triple> needs_scan;
    GetPerFile(scanned_loc, true);
    const Names scope_filter{scanned_scope};
    const Names scan_filter{scan};
    KeySet old_keys = ScannedKeys(M, scanned_loc, &scope_filter, &scan_filter);
    for (const Info& info : infos) {
      const Key key = info->key;
      Check(ScannedLoc(key) == scanned_loc && ScannedScope(key) == scanned_scope);
      old_keys.erase(Key{ForLoc(key), ForScope(key), scan, scanned_loc, scanned_scope});
      const File file = GetPerFile(ForLoc(key), true);
      if (file->unread.contains(ForScope(key))) ReadList(*file, {ForScope(key)});
      const KeySet dep_keys = DependentKeys(ForLoc(key), ForScope(key));
      if (StoreAndPurge(*file, info)) {
        if (!dep_keys.empty()) MaybeInvalidate(*info, dep_keys, needs_scan);
        if (scan == Primary() && ForLoc(key) == ScannedLoc(key) &&
            ForScope(key) == ScannedScope(key)) {
          file->primary[ForScope(key)] = info;
        }
        AddChanged(changed, ForLoc(key), ForScope(key));
      }
      D.erase(key);
      AddToWrite(key);
      MarkPresent({ForLoc(key), ForScope(key)});
    }
    for (const Key& key : old_keys) {
      if (RemoveRecords(*GetPerFile(ForLoc(key), true), scan, ForScope(key), scanned_loc,
                        scanned_scope)) {
        AddChanged(changed, ForLoc(key), ForScope(key));
        ++fRoadsTaken[9];
      }
    }
    if (!needs_scan.empty()) {
      needs_scan.erase(Triple{scanned_loc, scanned_scope, scan});
      EmitNeedsScan(needs_scan, std::nullopt);
    }
    if (!changed.empty()) {
      AddPrimaryFiles(changed);
      EmitChanged(changed);
    }
    allow_write ? DoIdle() : ScheduleIdle();
  }

  void RemoveScopeInfoSeq(const std::vector<CScopeInfoToRemove>& to_remove) {
    for (const CScopeInfoToRemove& item : to_remove) {
      RemoveRecords(*GetPerFile(item.loc, true), "*", item.for_scope, item.scanned_loc,
                    *item.scanned_scope);
    }
  }

  static void AddChanged(Changed& changed, Loc loc, const Text& scope) {
    for (auto& [each, scopes] : changed) {
      if (each == loc) {
        scopes->insert(scope);
        return;
      }
    }
    changed.emplace_back(loc, std::make_shared<Names>(Names{scope}));
  }

  void AddPrimaryFiles(Changed& changed) const {
    // Files were entered in an order that can be free; with shared sets it shows in the result.
    const auto place = [&](Loc loc) {
      return std::find(fOrderHint.begin(), fOrderHint.end(), loc) - fOrderHint.begin();
    };
    std::stable_sort(changed.begin(), changed.end(),
                     [&](const auto& a, const auto& b) { return place(a.first) < place(b.first); });
    const Changed items = changed;
    for (const auto& [loc, scopes] : items) {
      if (!fReverseSecondary.contains(loc)) continue;
      for (const Loc primary : fReverseSecondary.at(loc)) {
        const auto known = std::find_if(changed.begin(), changed.end(),
                                        [&](const auto& item) { return item.first == primary; });
        if (known == changed.end()) {
          changed.emplace_back(primary, scopes);
        } else {
          const Names copy = *scopes;
          known->second->insert(copy.begin(), copy.end());
        }
      }
    }
  }

  void EmitChanged(const Changed& changed) {
    CChangedDict as_emitted;
    for (const auto& [loc, scopes] : changed) {
      PurgeMerged(loc, *scopes);
      as_emitted.Set(loc, std::make_shared<TextSet>(scopes->begin(), scopes->end()));
    }
    fEvents.push_back(fakes::EventText(as_emitted));
    if (fOnEvent) fOnEvent();
  }

  void EmitNeedsScan(const std::set<Triple>& needs_scan, std::optional<int> priority) {
    CNeedsScanSet as_emitted;
    for (const auto& [loc, scope, scan] : needs_scan) as_emitted.insert({loc, scope, scan});
    fEvents.push_back(fakes::EventText(as_emitted, priority));
    if (fOnEvent) fOnEvent();
  }

  void PurgeMerged(Loc loc, const Names& scopes) {
    std::erase_if(fMerged, [&](const CMergedEntry& entry) {
      return std::any_of(entry.rests_on.begin(), entry.rests_on.end(), [&](const Ref& ref) {
        return ref.first == loc && (scopes.contains("*") || scopes.contains(ref.second));
      });
    });
  }

  // ---- Invalidating.

  void InvalidateScans(const std::map<Loc, KeySet>& keys_dict, bool whole_files,
                       std::optional<int> priority) {
    std::set<Triple> needs_scan;
    for (const auto& [loc, keys] : keys_dict) {
      for (const Key& key : keys) AddNeedsScan(key);
      if (whole_files) {
        for (const Text& scan : fScanNames) {
          needs_scan.insert({loc, "*", scan});
          ChangeScansDone(loc, scan, false);
        }
      } else {
        for (const Key& key : keys) {
          needs_scan.insert(TripleOf(key));
          ChangeScansDone(loc, Scan(key), false);
        }
      }
    }
    EmitNeedsScan(needs_scan, priority);
  }

  void AddDepKeysToNeedsScan(const KeySet& keys, std::set<Triple>* needs_scan,
                             std::optional<int> priority, bool emits) {
    std::set<Triple> own;
    std::set<Triple>& to_scan = needs_scan == nullptr ? own : *needs_scan;
    for (const Key& key : keys) AddNeedsScan(key);
    for (const Key& key : keys) {
      to_scan.insert(TripleOf(key));
      ChangeScansDone(ScannedLoc(key), Scan(key), false);
    }
    if (emits) EmitNeedsScan(to_scan, priority);
  }

  void MaybeInvalidate(const CInfo& info, KeySet dep_keys, std::set<Triple>& needs_scan) {
    const Triple own = TripleOf(info.key);
    Check(!needs_scan.contains(own));
    if (info.seen != nullptr) {
      for (const auto& [ref, time] : *info.seen) {
        dep_keys.erase(
            Key{ForLoc(info.key), ForScope(info.key), Scan(info.key), ref.loc, ref.scope});
        if (dep_keys.empty()) return;
      }
    }
    std::erase_if(dep_keys, [&](const Key& key) { return TripleOf(key) == own; });
    if (!dep_keys.empty()) {
      AddDepKeysToNeedsScan(dep_keys, &needs_scan, std::nullopt, false);
      Check(!needs_scan.contains(own));
      ++fRoadsTaken[10];
    }
  }

  void FinishedWithScans(Loc loc, const Text& scope, const Text& scan) {
    if (GetPerFile(loc, false) == nullptr) return;
    Changed changed;
    const Names scope_filter{scope};
    const Names scan_filter{scan};
    for (const Key& key : ScannedKeys(N, loc, &scope_filter, &scan_filter)) {
      if (Scan(key) != scan) continue;
      if (const File file = Find(ForLoc(key))) {
        RemoveRecords(*file, scan, ForScope(key), ScannedLoc(key), ScannedScope(key));
      }
      AddChanged(changed, ForLoc(key), ForScope(key));
      ++fRoadsTaken[11];
    }
    if (!changed.empty()) {
      AddPrimaryFiles(changed);
      EmitChanged(changed);
    }
  }

  void ChangeScansDone(Loc loc, const Text& scan, bool done) {
    const File file = GetPerFile(loc, true);
    Names names;
    Text rest = file->done;
    while (!file->done.empty()) {
      const size_t comma = rest.find(',');
      names.insert(rest.substr(0, comma));
      if (comma == Text::npos) break;
      rest.erase(0, comma + 1);
    }
    if (done == names.contains(scan)) return;
    names.insert(scan);
    Text text;
    for (const Text& name : names) text += "," + name;
    SetScansDone(*file, text.substr(1));
    if (AssertionsActive() && scan == Primary() && !AllNames(*file).contains("")) Check(false);
  }

  // ---- Writing.

  void WriteToDatabase() {
    std::vector<Loc> all;
    for (const auto& [loc, file] : fFiles) all.push_back(loc);
    WriteToDatabase(all);
  }

  void WriteToDatabase(const std::vector<Loc>& locs) {
    std::vector<File> files;
    for (const Loc loc : locs) {
      if (const File file = Find(loc)) files.push_back(file);
    }
    for (const File& file : files) {
      bool cleared = false;
      if (file->clear_db) {
        cleared = fDb.ClearInfoForFiles({file->loc});
        if (cleared) {
          file->clear_db = false;
          file->done_unwritten = file->done_unwritten || !file->done.empty();
        }
      }
      if (file->mtime > 0.0 && ToWriteCount(file->loc) != 0) {
        WriteOneFile(*file);
      } else if (!cleared && file->mtime > 0.0 && file->done_unwritten &&
                 fDb.SaveDataForFile(file->loc, {}, file->done, file->mtime)) {
        file->done_unwritten = false;
      }
    }
  }

  void WriteOneFile(CFile& file) {
    const KeySet keys = Keys(W, file.loc);
    std::vector<CDatabaseRecord> rows;
    std::vector<CRecord*> written;
    KeySet not_writable;
    for (const Key& key : keys) {
      Check(!N.contains(key));
      CRecord* found = nullptr;
      if (file.records.contains(ForScope(key))) {
        for (CRecord& record : file.records[ForScope(key)]) {
          found = record.key == key ? &record : found;
        }
      }
      if (found == nullptr || found->incomplete || found->data.back() != '1' ||
          std::count(found->data.begin(), found->data.end(), '\0') != 3) {
        not_writable.insert(key);
        continue;
      }
      const size_t one = found->data.find('\0');
      const size_t two = found->data.find('\0', one + 1);
      const size_t three = found->data.find('\0', two + 1);
      rows.push_back({file.loc, ForScope(key), Scan(key), ScannedLoc(key), ScannedScope(key),
                      found->seen, found->data.substr(one + 1, two - one - 1),
                      found->data.substr(two + 1, three - two - 1), found->data.substr(0, one),
                      -1});
      written.push_back(found);
    }
    bool saved = false;
    if (!rows.empty()) {
      for (const Key& key : not_writable) {
        if (Scan(key) == Primary()) SetScansDone(file, "");
      }
      saved = fDb.SaveDataForFile(file.loc, rows, file.done, file.mtime);
    }
    if (kDevelopmentRun() && saved && !file.done.empty()) {
      fDb.ReadScopeNames(file.loc, Primary(), file.mtime);  // and reports what it misses
    }
    if (!saved) {
      C.insert(keys.begin(), keys.end());
      ++fRoadsTaken[12];
      return;
    }
    file.done_unwritten = false;
    for (const Key& key : keys) {
      C.erase(key);
      W.erase(key);
      D.insert(key);
      file.all_db.insert(ForScope(key));
    }
    if (IsDone(file, Primary()) && !file.all_db.contains("")) Check(false);
    for (CRecord* record : written) record->data.back() = '0';
  }

  void destroy() {
    WriteToDatabase();
    fIdles.clear();
  }

  // ---- Trimming.

  void ScheduleIdle() {
    if (std::count(fIdles.begin(), fIdles.end(), Idle::kCache) == 0) fIdles.push_back(Idle::kCache);
  }

  void RunOneIdle() {
    if (fIdles.empty()) return;
    const Idle idle = fIdles.front();
    fIdles.erase(fIdles.begin());
    if (idle == Idle::kCache) {
      DoIdle();
      return;
    }
    do {
      fMerged.pop_back();
    } while (static_cast<ptrdiff_t>(fMerged.size()) > fLimits.kMaxInfoCount * 3 / 4);
  }

  void DoIdle() {
    if (W.size() - C.size() > 50) {
      WriteToDatabase();
    } else if (W.empty()) {
      TrimTotal(fLimits.kMaxInfoCount);
    }
  }

  void TrimTotal(ptrdiff_t count) {
    const auto size = static_cast<ptrdiff_t>(fUsed.size());
    if (size <= count) return;
    std::vector<std::pair<Loc, std::vector<Text>>> by_file;
    for (auto used = fUsed.rbegin(); used != fUsed.rbegin() + (size - count * 3 / 4); ++used) {
      auto entry = std::find_if(by_file.begin(), by_file.end(),
                                [&](const auto& each) { return each.first == used->first.first; });
      if (entry == by_file.end()) entry = by_file.insert(entry, {used->first.first, {}});
      entry->second.push_back(used->first.second);
    }
    ++fRoadsTaken[13];
    for (const auto& [loc, scopes] : by_file) {
      const File file = Find(loc);
      if (file == nullptr) continue;
      if (ToWriteCount(loc) != 0) WriteToDatabase({loc});
      const bool can_remove = !file->done_unwritten;
      if (kDevelopmentRun() && file->mtime > 0.0) {
        Check(ToWriteCount(loc) == 0);
        if (!file->done.empty()) {
          Check(!fDb.ReadScopeDataRecords(loc, fScanNames, {""}, file->mtime).empty());
        }
      }
      Discard(*file, scopes, can_remove);
    }
  }

  void TrimNotModified(ptrdiff_t count, const CFile* keep) {
    const auto size = static_cast<ptrdiff_t>(fUsed.size());
    if (size < count) return;
    ++fRoadsTaken[14];
    const ptrdiff_t target = size - count;
    ptrdiff_t removed = 0;
    std::vector<std::pair<File, std::vector<Text>>> to_remove;
    std::set<Ref> without_file;
    std::exception_ptr failure;
    // In pieces of as many as are still too many; what is left in the end is too few for a piece.
    for (ptrdiff_t end = 0, at = 0; failure == nullptr;) {
      end += std::max<ptrdiff_t>(1, target - removed);
      for (; end <= size && at < end && failure == nullptr; ++at) {
        const Ref ref = fUsed[static_cast<size_t>(size - 1 - at)].first;
        File file;
        try {
          file = GetPerFile(ref.first, false);
        } catch (...) {
          failure = std::current_exception();
          break;
        }
        if (file == nullptr) {
          without_file.insert(ref);
          ++fRoadsTaken[15];
        } else if (ToWriteCount(ref.first, ref.second) == 0) {
          auto known = std::find_if(to_remove.begin(), to_remove.end(),
                                    [&](const auto& each) { return each.first == file; });
          if (known == to_remove.end()) known = to_remove.insert(known, {file, {}});
          known->second.push_back(ref.second);
        } else {
          continue;
        }
        ++removed;
      }
      if (end > size || removed >= target) break;
    }
    std::erase_if(fUsed, [&](const auto& used) { return without_file.contains(used.first); });
    if (failure != nullptr) std::rethrow_exception(failure);
    for (const auto& [file, scopes] : to_remove) Discard(*file, scopes, file.get() != keep);
  }

  void Discard(CFile& file, const std::vector<Text>& scopes, bool can_remove) {
    const Loc loc = file.loc;
    const Names scope_set(scopes.begin(), scopes.end());
    const bool whole_file = scopes == std::vector<Text>{"*"};
    bool remove_all = false;
    if (!file.clear_db) {
      if (file.mtime == kMissing) {
        file.done_unwritten = false;
        remove_all = true;
      } else if (whole_file) {
        remove_all = true;
      } else if (file.primary.size() <= scopes.size() &&
                 std::all_of(file.primary.begin(), file.primary.end(),
                             [&](const auto& each) { return scope_set.contains(each.first); })) {
        remove_all = ToWriteCount(loc) == 0;
      }
    }
    std::vector<Text> names;
    if (whole_file) {
      for (const auto& [scope, info] : file.primary) names.push_back(scope);
    } else {
      names = scopes;
      Names instances;
      for (const Text& scope : scopes) {
        if (!scope.empty()) instances.insert(scope + ":");
        if (const size_t dot = scope.rfind('.'); dot != Text::npos && dot != 0) {
          instances.insert(scope.substr(0, dot) + ":");
        }
      }
      for (const Text& scope : instances) {
        if (remove_all || ToWriteCount(loc, scope) == 0) names.push_back(scope);
      }
    }
    std::erase_if(fUsed, [&](const auto& used) {
      return used.first.first == loc &&
             std::count(names.begin(), names.end(), used.first.second) != 0;
    });
    if (remove_all) {
      ClearAllInfo(file, false);
      if (can_remove) {
        std::erase_if(fFiles, [&](const auto& each) { return each.first == loc; });
        fWatched.erase(loc);
      }
      return;
    }
    if (whole_file) {
      ClearAllInfo(file, file.clear_db);
      return;
    }
    const Names name_set(names.begin(), names.end());
    for (const Key& key : Keys(W, loc, &name_set)) {
      C.erase(key);
      W.erase(key);
    }
    for (const Text& name : names) file.primary.erase(name);
  }

  // ---- Changes.

  void ExternalFilesChanged(const CLocMtimeDict& changed) {
    std::map<Loc, KeySet> keys_dict;
    for (const auto& [loc, time] : changed) {
      if (const File file = Find(loc); file != nullptr && file->mtime != kEdited) {
        UpdateDiskMtime(*file, time < 0 ? kMissing : time, keys_dict);
      }
    }
    if (!keys_dict.empty()) InvalidateScans(keys_dict, true, 2);
  }

  void SavePoint(const fakes::CFakeSavable& savable, bool not_modified) {
    const File file = GetPerFile(savable.fLocation, false);
    if (file == nullptr || !savable.fInitialReadCompleted) return;
    const DiskTime time = not_modified ? savable.fModTime : kEdited;
    if (file->mtime == time) return;
    if (time == kEdited && !file->unread.empty()) {
      ReadList(*file, {file->unread.begin(), file->unread.end()});
    }
    std::map<Loc, KeySet> keys_dict;
    UpdateDiskMtime(*file, time, keys_dict);
    Check(keys_dict.empty());
  }

  void ScopeLogicalsModified(Loc loc, DiskTime matched, const Names& scopes) {
    PurgeMerged(loc, scopes);
    const File file = Find(loc);
    if (file == nullptr || (matched == file->mtime && file->mtime != kEdited)) return;
    SetScansDone(*file, "");
    InvalidateScans({{loc, ScannedKeys(M, loc, &scopes)}}, scopes.contains("*"), 1);
  }

  void ImportResolutionChanged() {
    fMerged.clear();
    std::erase(fIdles, Idle::kMergedTrim);
    fSecondary.clear();
    fReverseSecondary.clear();
  }

  void DatabaseChanged(const std::set<Loc>* locs) {
    Changed changed;
    for (const auto& [loc, file] : fFiles) {
      if ((locs == nullptr || locs->contains(loc)) && ValidOnDiskMtime(file->mtime)) {
        file->db_changed = true;
        ClearAllInfo(*file, false);
        AddChanged(changed, loc, "*");
      }
    }
    if (!changed.empty()) {
      AddPrimaryFiles(changed);
      EmitChanged(changed);
    }
  }

  void Clear() {
    Changed changed;
    for (const auto& [loc, file] : fFiles) AddChanged(changed, loc, "*");
    EmitChanged(changed);
    fFiles.clear();
    fUsed.clear();
    fMerged.clear();
    std::erase(fIdles, Idle::kMergedTrim);
    for (KeySet* set : {&M, &N, &D, &W, &C}) set->clear();
    fExisting.clear();
    fDependentScans.clear();
  }

  void ClearFiles(const std::vector<Loc>& loc_seq, bool clear_db) {
    std::vector<Loc> locs;
    for (const Loc loc : loc_seq) {
      if (std::count(locs.begin(), locs.end(), loc) == 0) locs.push_back(loc);
    }
    Changed changed;
    for (const Loc loc : locs) {
      if (GetPerFile(loc, false) != nullptr) AddChanged(changed, loc, "*");
    }
    AddPrimaryFiles(changed);
    EmitChanged(changed);
    std::vector<File> files;
    for (const Loc loc : locs) {
      if (const File file = GetPerFile(loc, clear_db)) files.push_back(file);
    }
    if (clear_db) {
      for (const File& file : files) {
        Discard(*file, {"*"}, false);
        SetScansDone(*file, "");
        file->clear_db = true;
      }
      WriteToDatabase(locs);
    }
    for (const File& file : files) {
      Discard(*file, {"*"}, true);
      if (!clear_db && file->mtime == kEdited && !fHost.fCacheMgr.fBuffers.contains(file->loc)) {
        file->mtime = kMissing;
      }
    }
    for (const Loc loc : locs) PurgeMerged(loc, {"*"});
  }

  // ---- As text.

  Text Dump() const {
    Text out;
    const auto lines = [&out](TextView title, std::vector<Text> all) {
      std::sort(all.begin(), all.end());
      out += Text(title) + " (" + std::to_string(all.size()) + ")\n";
      for (const Text& line : all) out += "  " + line + "\n";
    };
    const auto keys = [&](TextView title, const KeySet& set) {
      std::vector<Text> texts;
      for (const Key& key : set) texts.push_back(TextOf(key));
      lines(title, std::move(texts));
    };
    keys("known", M);
    keys("needs scan", N);
    keys("in database", D);
    keys("to write", W);
    keys("could not write", C);
    out += FormatBraces("live records: {}\n", {fExisting.size()});
    const auto joined = [](const Names& names) {
      Text text;
      for (const Text& name : names) text += (text.empty() ? "" : ", ") + Repr(name);
      return text;
    };
    auto files = fFiles;
    std::sort(files.begin(), files.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    for (const auto& [loc, file] : files) {
      out += FormatBraces("file {}\n", {loc});
      out += FormatBraces("  disk_mtime = {}, clear_db = {}, fDatabaseChanged = {}\n",
                          {file->mtime, file->clear_db, file->db_changed});
      out += FormatBraces("  fScansDone = {}, fScansDoneNeedsToBeWritten = {}\n",
                          {Repr(file->done), file->done_unwritten});
      out += "  all_db_scope_names = " + joined(file->all_db) + "\n";
      out += "  db_scope_names_not_loaded = " + joined(file->unread) + "\n";
      Names primaries;
      for (const auto& [scope, info] : file->primary) primaries.insert(scope);
      out += "  primary_info_dict = " + joined(primaries) + "\n";
      for (const auto& [scope, records] : file->records) {
        out += FormatBraces("  scope {}\n", {Repr(scope)});
        for (const CRecord& record : records) {
          out += FormatBraces(
              "    {} data = {} bytes, flag {}, incomplete = {}, scopes seen = {}\n",
              {TextOf(record.key), record.data.size(), record.data.substr(record.data.size() - 1),
               record.incomplete, record.seen});
        }
      }
    }
    out += "used scopes, most recently used first\n";
    for (const auto& [ref, returned] : fUsed) {
      out += FormatBraces("  {} {}\n", {CScopeRef{ref.first, ref.second}, returned});
    }
    std::vector<Text> merged;
    for (const CMergedEntry& entry : fMerged) {
      const auto& [loc, scope, others] = entry.key;
      merged.push_back(FormatBraces("({}, {}, {})", {loc, Repr(scope), others}));
    }
    lines("merged records", merged);
    return out;
  }

  // Kept for the caller, who takes them between steps.
  std::vector<Text> fEvents;
  std::function<void()> fOnEvent;
  std::vector<Loc> fOrderHint;                // the files of the last scopes-modified, in order
  std::vector<std::vector<Text>> fReadsMade;  // the names of each batched read of this step
  std::vector<std::pair<Loc, File>> fFiles;   // in order of entering
  std::set<Loc> fWatched;
  std::vector<Loc> fAsked;  // for secondary files, in this step
  KeySet M, N, D, W, C;
  std::array<size_t, 16> fRoadsTaken{};  // how often each of the rarer roads was gone

  fakes::CCacheHost& fHost;
  fakes::CMemoryAnalysisDb& fDb;
  const CInfoCacheLimits fLimits;
  const std::vector<Text> fScanNames;
  std::map<Key, Info> fExisting;
  std::map<Key, std::set<Ref>> fDependentScans;
  std::vector<std::pair<Ref, bool>> fUsed;  // the most recently used first
  std::deque<CMergedEntry> fMerged;         // the most recently used first
  std::map<Loc, std::vector<Loc>> fSecondary;
  std::map<Loc, std::set<Loc>> fReverseSecondary;
  std::vector<Idle> fIdles;
};

}  // namespace pysource::scopeinfo
