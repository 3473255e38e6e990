// The info cache: what is known of every scope, from memory, from the database, and which scans
// would make the answer better.
#pragma once

#include <cstddef>
#include <cstdint>
#include <memory>
#include <optional>
#include <utility>
#include <variant>
#include <vector>

#include "pysource/host/analysismgr.h"
#include "pysource/host/cachemgr.h"
#include "pysource/host/infocachebase.h"
#include "pysource/host/logger.h"
#include "pysource/host/memoryuse.h"
#include "pysource/host/ordereddict.h"
#include "pysource/host/savable.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/usageordereddict.h"
#include "pysource/host/velk.h"
#include "pysource/scopeinfo/dependantcache/scopedependantcache.h"
#include "pysource/scopeinfo/filestate/crossfiledata.h"
#include "pysource/scopeinfo/filestate/filestateowner.h"
#include "pysource/scopeinfo/filestate/needsscan.h"
#include "pysource/scopeinfo/filestate/perfileentry.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::scopeinfo {

// How much a cache holds. A test sets them low.
struct CInfoCacheLimits {
  // Scopes held in memory before the least recently used are given up. 20000 is a large project's
  // worth of what an editor looks at in a day; the value is a guess that memory reports have not
  // contradicted.
  ptrdiff_t kMaxInfoCount = 20000;
  // Scopes read from the database in one call when one was asked for. A file of up to this many is
  // read whole: one query costs about as much for fifty rows that lie side by side as for one.
  ptrdiff_t kMaxForAllScopeRead = 50;
};

// The locations that supply further information for a file, in the factory's order. Never null.
using CSecondaryFiles = std::shared_ptr<const std::vector<Loc>>;

// One scope to remove: of which file and scope, scanned from where.
struct CScopeInfoToRemove {
  Loc loc;
  Text for_scope;
  Loc scanned_loc;
  std::optional<Text> scanned_scope;
};

// The cache of source information of one process. A host makes one, sets it as fInfoCache of its
// analysis manager, calls SetScanNames, and from then on asks and feeds it:
//
//   CNeedsScanDict needs_scan;
//   auto info = cache.GetScopeInfo(loc, "C.method", true, &needs_scan);
//   for (auto& [scope, scan_names] : needs_scan) run those scans; each result goes back through
//   cache.AddScopeInfoListForSingleScan(scanned_loc, scanned_scope, scan_name, infos);
//   cache.ChangeScansDone(loc, scan_name, true) when a file is done, and FinishedWithScans.
//
// It holds records as bytes, builds objects from them when they are merged, and keeps merged
// records. It watches files, buffers, analyses and the database, marks what has become stale, and
// says so through kNeedsScanAdded and kScopesModified (host/infocachebase.h). Unwritten records go
// to the database in idle time, on WriteToDatabase and on destroy.
//
// One thread, the main thread. Signals are emitted last, when everything is in order, so a handler
// may call back in, even destroy(); only the object itself must outlive the operation. Every read
// may trim: a record that is not held in hand may leave memory during the next call. What a host
// service throws passes through; what was done before stays done.
//
// Each source file is one path: infocache.cc wiring, read.cc, add.cc, invalidate.cc, write.cc,
// trim.cc, changes.cc, queries.cc, debugdump.cc, memory.cc.
class CInfoCache : public CInfoCacheBase, private CFileStateOwner {
 public:
  // The database of `ana_mgr`, and the managers of the singletons, must be there and outlive the
  // cache. `loc_cache` can be null.
  CInfoCache(CAnalysisManager* ana_mgr, CLocationCache* loc_cache, CInfoCacheLimits limits = {});
  // Destroys: writes what is unwritten.
  ~CInfoCache() override;

  // Sets the scan names, the primary one first. New ones clear the cache; the present ones change
  // nothing. Throws CValueError for fewer than two. No name may be a prefix of another.
  void SetScanNames(const std::vector<Text>& scan_names);

  // The disk time of the content of the file as the host sees it: that of the last read or write
  // for an unmodified open buffer, kFileModifiedInMemoryMtime for a modified one, otherwise the
  // disk's.
  virtual DiskTime GetDiskMTime(Loc loc);

  // ---- Reading (read.cc).

  // The merged record of the scope, or null when there is no primary record of it. It is shared
  // with the cache: the caller must not change it. `needs_scan_dict`, which must be empty if given,
  // is told the scans that would make the answer better, whatever the answer is. With
  // `merge_secondary` the secondary files of the file take part.
  //
  // A repeated call costs a few hash look-ups and no allocation; the first one for a scope reads
  // the database once, for the scope and its neighbours.
  virtual CScopeInfoPtr GetScopeInfo(Loc loc, TextView scope_name, bool merge_secondary = true,
                                     CNeedsScanDict* needs_scan_dict = nullptr);
  // One entry for each name, in order, from one database call at most. Entries can be null.
  std::vector<CScopeInfoPtr> GetMultipleScopeInfos(Loc loc, const std::vector<Text>& scope_name_seq,
                                                   bool merge_secondary = true);
  // The names of all scopes known of the file, in memory or not.
  TextSet GetAllScopeNames(Loc loc, bool include_inst_scopes = false,
                           bool include_secondary_files = false);

  // ---- Adding (add.cc).

  // Takes in one record; true if the stored information changed. A record that was made from other
  // content than the present one is refused, which is normal: scans run behind edits. With
  // `allow_write` housekeeping, and so writing, may run at once instead of in idle time.
  virtual bool AddScopeInfo(const CScopeInfoPtr& scope_info, bool allow_write = false);
  // Takes in all that one scan of one scope found. What the same scan found before and does not
  // find now is removed, so an empty list removes everything. Always true.
  virtual bool AddScopeInfoListForSingleScan(Loc scanned_loc, TextView scanned_scope,
                                             TextView scan_name,
                                             const std::vector<CScopeInfoPtr>& scope_info_list,
                                             bool allow_write = false);
  // Removes records, of whatever scan, without a signal: the caller reconciles records of its own
  // and owns the consequences.
  void RemoveScopeInfoSeq(
      const std::vector<std::variant<CScopeInfoPtr, CScopeInfoToRemove>>& to_remove);

  // Adds to `changed`, for each file, the third field of each key (its scan name), and the primary
  // files of what is then in it. Nothing in the module calls it; engines that keep their own
  // dependents do.
  void DisableAddDependentsToChangedDict(CChangedDict& changed, const CKeysDict& dep_key_dict);

  // ---- Scans (invalidate.cc, write.cc).

  // Marks the scans of these keys as to be repeated, adds them to `needs_scan` if given, and emits
  // the report unless told not to.
  void AddDepKeysToNeedsScan(const CScopeInfoKeySet& dep_keys, CNeedsScanSet* needs_scan = nullptr,
                             Priority priority = std::nullopt, bool emit_needs_scan_added = true);
  // To be called when a scan of the scope (or kWildcardScope for the file) has finished: records
  // that it should have renewed and did not are removed, since their scopes no longer exist.
  void FinishedWithScans(Loc loc, TextView scope_name, TextView scan_name);
  // Notes that the scan of the file is done. `done` false notes nothing: a scan is never taken off
  // the list this way (see write.cc). The primary scan is noted only after the record of its module
  // scope was added.
  void ChangeScansDone(Loc loc, TextView scan_name, bool done);
  // The scans done of each file at that time, from memory where memory has that time, otherwise
  // from the database in one call.
  CScansDoneDict GetScansDoneForMultipleFiles(const CLocMtimeDict& loc_mtime_dict);

  // ---- Writing and clearing (write.cc, changes.cc).

  // Writes what is unwritten of these files, or of all.
  void WriteToDatabase();
  void WriteToDatabase(const std::vector<Loc>& loc_seq);
  // Forgets everything in memory and saves nothing.
  void Clear();
  // Forgets these files in memory, and deletes them from the database if `clear_db`.
  void ClearFiles(const std::vector<Loc>& loc_seq, bool clear_db);
  // Asks the database to look for changes by other processes now.
  void CheckForDatabaseChanges();

  // ---- Queries (queries.cc).

  // All imports in these files: of a file with an entry those in memory, of the others the
  // database's.
  std::vector<CImportEquiv> GetAllImports(const std::vector<Loc>& loc_seq);
  // All classes in these files. Unlike imports, a file with scopes that are not in memory is asked
  // of the database too; the result is then sorted and each item there once.
  std::vector<CClassEquiv> GetAllClasses(const std::vector<Loc>& loc_seq);
  // The disk time that the entry of the file has; without an entry the present one if
  // `read_if_needed`, otherwise absent. Makes no entry.
  virtual std::optional<DiskTime> GetDiskModTimeUsed(Loc loc, bool read_if_needed);

  // ---- For tools and tests.

  // Everything that is held, as text: sorted where order means nothing, in order where it does.
  Text DebugDump() const;
  // Asserts what always holds between operations, here and in the floors below.
  void CheckInvariants() const;
  const CInsertionOrderedDict<Loc, CPerFilePtr>& DbgGetPerFileDict() const { return _fPerFileDict; }
  CCrossFileData& DbgGetCrossFileData() { return _fCrossFileData; }
  // Whether a merged record is held that rests on a scope of the file.
  bool HasMergedInfoOf(Loc loc) const;
  // Sizes, for reports. MemoryUse walks everything.
  CMemoryUse MemoryUse() const;
  size_t UsedScopeCount() const { return _fUsedScopesDict.size(); }
  size_t MergedInfoCount() const { return _fMergedInfoCache.Size(); }
  uint64_t MergedInfoHits() const { return _fMergedInfoCache.fHits; }
  uint64_t MergedInfoMisses() const { return _fMergedInfoCache.fMisses; }

  // For CScopeInfo::GetSerializedData.
  Bytes EncodeScopeInfo(const CScopeInfo& info) override;

  // The scan names; ":unset" alone until SetScanNames. Read-only outside.
  std::vector<Text> fScanNames;
  CLocationCache* const fLocCache;
  CScopeInfoSerializer fInfoSerializer;
  CLogger fLog;

 protected:
  void _destroy_impl() override;

  // The entry of the file, brought up to date with the database on first use and whenever the
  // database has changed. Null only without `create`. Makes no database call for a file without a
  // valid disk time.
  CPerFilePtr GetPerFile(Loc loc, bool create) override;

  virtual void AddPrimaryFileToChangedDict(CChangedDict& changed_dict) const;
  virtual void MaybeInvalidateDependantScans(const CScopeInfo& info, CScopeInfoKeySet& dep_keys,
                                             CNeedsScanSet& needs_scan);
  virtual CSecondaryFiles GetSecondaryFiles(Loc loc);
  virtual void AddInstanceScopesToDiscard(std::vector<Text>& scope_list);
  virtual void ScheduleWriteToDatabaseTimeout();
  virtual void CancelWriteToDatabaseTimeout();
  virtual void CB_WriteToDatabaseTimeout();
  // A null set is every file that has an entry.
  virtual void CB_ExternalDatabaseChanged(const CLocSet* changed_loc_set);
  virtual void InvalidateScans(const CKeysDict& keys_dict, bool whole_files = false,
                               CNeedsScanSet* needs_scan = nullptr,
                               Priority priority = std::nullopt, bool emit_needs_scan_added = true);

  // For a subclass that overrides neither GetPerFile nor GetSecondaryFiles, or whose overrides
  // always give what those here give: repeated reads then need not call them. Others are asked at
  // every read.
  void TakeShortcuts() { _fTakesShortcuts = true; }

 private:
  using CUsedScopes = CUsageOrderedDict<CScopeRef, bool, CScopeRefHash, CScopeRefEqual>;

  // What a look-up of a merged record found on its way, so that the next one finds it in one step.
  // Good while `stamp` is _fShortcutStamp: no entry, no used scope and no list of secondary files
  // has gone since.
  struct CShortcut {
    uint64_t stamp = 0;
    CPerFileEntry* per_file = nullptr;
    CUsedScopes::Slot used_slot = CUsedScopes::kNoSlot;
    bool merge_secondary = false;
  };
  // The key of a merged record: the scope and the secondary files that took part.
  struct CMergedKey {
    Loc loc;
    Text scope_name;
    mutable CShortcut shortcut;  // no part of the key's value
    CSecondaryFiles other_locs;
    Text Repr() const;
  };
  struct CMergedKeyView {
    CMergedKeyView(Loc l, TextView s, const std::vector<Loc>& o)
        : loc(l), scope_name(s), other_locs(o) {}
    // NOLINTNEXTLINE(google-explicit-constructor): a view of the same thing
    CMergedKeyView(const CMergedKey& key)
        : loc(key.loc), scope_name(key.scope_name), other_locs(*key.other_locs) {}
    Loc loc;
    TextView scope_name;
    const std::vector<Loc>& other_locs;
  };
  // A request. Equal to the key that answered the same one before, as long as its shortcut is good.
  struct CRequestView {
    Loc loc;
    TextView scope_name;
    bool merge_secondary;
    uint64_t stamp;
  };
  // The secondary files are left out: they follow from the file in nearly all cases.
  struct CMergedKeyHash {
    size_t operator()(const CMergedKeyView& key) const noexcept {
      return CScopeRefHash()({key.loc, key.scope_name});
    }
    size_t operator()(const CRequestView& request) const noexcept {
      return CScopeRefHash()({request.loc, request.scope_name});
    }
  };
  struct CMergedKeyEqual {
    bool operator()(const CMergedKey& key, const CRequestView& request) const {
      return key.shortcut.stamp == request.stamp &&
             key.shortcut.merge_secondary == request.merge_secondary && key.loc == request.loc &&
             key.scope_name == request.scope_name;
    }
    bool operator()(const CMergedKeyView& a, const CMergedKeyView& b) const {
      return a.loc == b.loc && a.scope_name == b.scope_name &&
             (&a.other_locs == &b.other_locs || a.other_locs == b.other_locs);
    }
  };
  // Records are compared by identity, the report by value.
  struct CMergedValue {
    CScopeInfoPtr merged_info;
    std::shared_ptr<const CNeedsScanDict> needs_scan;  // null for an empty one, as nearly all are
    friend bool operator==(const CMergedValue& a, const CMergedValue& b) {
      return a.merged_info == b.merged_info &&
             (a.needs_scan == nullptr || b.needs_scan == nullptr ? a.needs_scan == b.needs_scan
                                                                 : *a.needs_scan == *b.needs_scan);
    }
  };

  // CFileStateOwner
  const std::vector<Text>& ScanNames() const override { return fScanNames; }
  CCrossFileData& CrossFileData() override { return _fCrossFileData; }
  CScopeInfoSerializer& InfoSerializer() override { return fInfoSerializer; }
  const CLogger& Log() const override { return fLog; }
  CPerFilePtr FindPerFile(Loc loc) const override;

  CAnalysisDb& Db() const { return *_fAnaMgr->fAnalysisDb; }
  const Text& PrimaryScanName() const { return fScanNames[0]; }
  bool HasModifiedBuffer(Loc loc) const;
  // Whether the entry needs nothing of the database.
  static bool IsUpToDate(const CPerFileEntry& per_file) {
    return !per_file.fDatabaseChanged || !ValidOnDiskMtime(per_file.disk_mtime);
  }
  void CancelPendingCalls();

  // read.cc
  static const CScopeInfoPtr& AnswerWith(const CMergedValue& found, const CPerFileEntry& per_file,
                                         CNeedsScanDict* needs_scan_dict);
  CScopeInfoPtr FindOrMerge(Loc loc, TextView scope_name, bool merge_secondary,
                            CNeedsScanDict* needs_scan_dict);
  void RememberShortcut(const CMergedKeyView& key, bool merge_secondary,
                        const CPerFilePtr& per_file, CUsedScopes::Slot used_slot) const;
  void ForgetShortcuts() { ++_fShortcutStamp; }
  static bool IsContentThere(Loc loc, const CPerFileEntry& per_file);
  void ReadSecondaryScope(Loc other_loc, CPerFileEntry& other_per_file, TextView scope_name,
                          CNeedsScanDict& needs_scan_dict);
  bool IsInNoFile(Loc loc, CPerFileEntry& per_file, TextView scope_name,
                  const std::vector<Loc>& other_locs, CNeedsScanDict& needs_scan_dict);
  virtual std::vector<Text> GetScopeNamesToReadFromDb(const CPerFileEntry& per_file,
                                                      TextView scope_name) const;
  virtual void ReadScopeInfoListFromDb(CPerFileEntry& per_file, std::vector<Text> scope_name_list);
  CUsedScopes::Slot MarkReturned(Loc loc, TextView scope_name);
  void MarkPresent(Loc loc, TextView scope_name);

  // add.cc
  bool BringDiskTimeIntoLine(CPerFileEntry& per_file, const CScopeInfo& scope_info);
  bool StoreAndPurgeIfRenewed(CPerFileEntry& per_file, const CScopeInfoPtr& scope_info);
  void FinishAdd(bool allow_write);

  // write.cc
  void WriteFilesToDatabase(const std::vector<CPerFilePtr>& per_files);
  void WriteOneFileToDatabase(CPerFileEntry& per_file);
  void WriteScansDoneToDatabase(CPerFileEntry& per_file);

  // trim.cc
  void ScheduleIdle();
  void CB_OnIdle();
  void DoIdle();
  void TrimTotalInfoCount(ptrdiff_t count);
  virtual void TrimNotModified(ptrdiff_t count, ptrdiff_t spare_count,
                               const CPerFileEntry* keep_per_file);
  virtual void DiscardScopeInfo(CPerFileEntry& per_file, const std::vector<Text>& scope_names,
                                bool keep_flag, bool can_remove_per_file);
  void DbgCheckUsedScopes(Loc removed_loc) const;

  // queries.cc
  std::vector<CClassEquiv> GetAllInMemoryClasses(const CPerFileEntry& per_file);

  // changes.cc
  void CB_ExternalChanges(const CLocMtimeDict& locs_changed);
  void CB_SavableSavePoint(const CSavable& savable, bool not_modified);
  void CB_ScopesChanged(const CPySourceAnalysis& ana, const TextSet& scopes);
  void CB_ImportResolutionChanged();

  const CInfoCacheLimits _fLimits;
  ptrdiff_t _fMaxInfoCount;        // most scopes to hold in memory
  ptrdiff_t _fMaxForAllScopeRead;  // most scopes to read at once

  CAnalysisManager* const _fAnaMgr;
  CSavableManager* const fSavableMgr;
  CCacheManager* const fCacheMgr;

  // Every file seen; each is watched. An entry leaves only by a trim or a clear.
  CInsertionOrderedDict<Loc, CPerFilePtr> _fPerFileDict;
  CCrossFileData _fCrossFileData;
  // The scopes in memory in order of use. True: returned by GetScopeInfo; false: only read or
  // stored.
  CUsedScopes _fUsedScopesDict;
  // Merged records with their needs-scan reports, purged when a scope that they rest on changes.
  CScopeDependantCache<CMergedKey, CMergedValue, CMergedKeyHash, CMergedKeyEqual> _fMergedInfoCache;
  // Filled as files are asked for, emptied together when import resolution changes. The second one
  // leads from a secondary file to the files that named it.
  CInsertionOrderedDict<Loc, CSecondaryFiles> _fSecondaryFiles;
  CInsertionOrderedDict<Loc, CLocSet> _fReverseSecondaryFiles;
  // Raised whenever something goes to which a shortcut can lead.
  uint64_t _fShortcutStamp = 1;
  bool _fTakesShortcuts = false;  // although this is a subclass
  std::vector<std::vector<Text>> _fFormerScanNames;
  velk::Tag _fIdleCallbackTag = 0;            // of the pending idle call, 0 for none
  velk::Tag _fTimeoutForWriteToDatabase = 0;  // of the pending write, 0 for none
};

}  // namespace pysource::scopeinfo
