// The info cache: what is known about every scope, from memory and from the database, and which
// scans would make an answer better.
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
#include "pysource/scopeinfo/infocache/held.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::scopeinfo {

// How much a cache holds. Tests set low limits.
struct CInfoCacheLimits {
  // The maximum number of scopes in memory; above it the least recently used ones are dropped.
  // 20000 is about what an editor looks at in a day in a large project. The value is a guess that
  // memory reports have not contradicted.
  ptrdiff_t kMaxInfoCount = 20000;
  // The maximum number of scopes that one database call reads when one scope was requested. A file
  // with fewer unread scopes is read whole: a query for fifty adjacent rows costs about as much as
  // a query for one.
  ptrdiff_t kMaxForAllScopeRead = 50;
};

// The locations that supply further information for a file, in the factory's order. Never null.
using CSecondaryFiles = std::shared_ptr<const std::vector<Loc>>;

// A record to remove: the file and scope that it is for, and the file and scope that were scanned.
struct CScopeInfoToRemove {
  Loc loc;
  Text for_scope;
  Loc scanned_loc;
  std::optional<Text> scanned_scope;
};

// The cache of source information of one process. A host makes one, sets it as fInfoCache of its
// analysis manager and calls SetScanNames. From then on it reads from the cache and adds to it:
//
//   CNeedsScanDict needs_scan;
//   auto info = cache.GetScopeInfo(loc, "C.method", true, &needs_scan);
//   for (auto& [scope, scan_names] : needs_scan) run those scans; each result is passed to
//   cache.AddScopeInfoListForSingleScan(scanned_loc, scanned_scope, scan_name, infos);
//   cache.ChangeScansDone(loc, scan_name, true) when a file is done, and FinishedWithScans.
//
// It holds records as bytes, decodes them when they are merged, and keeps the merged records. It
// watches files, buffers, analyses and the database, marks what has become stale, and reports it
// through kNeedsScanAdded and kScopesModified (host/infocachebase.h). Unwritten records go to the
// database in idle time, on WriteToDatabase and on destroy. It runs no scans itself.
//
// Signals are emitted last, when the state is consistent, so a handler may call back into the
// cache, even destroy(). Every read may trim: a record that no caller holds may leave memory during
// the next call. An exception of a host service passes through; what was done before it stays done.
//
// REQUIRES: all calls come from one thread, the main thread.
// REQUIRES: the object outlives the operation in progress, also when a handler calls destroy().
//
// Each source file is one path: infocache.cc (wiring), read.cc, add.cc, invalidate.cc, write.cc,
// trim.cc, changes.cc, queries.cc, debugdump.cc, memory.cc.
class CInfoCache : public CInfoCacheBase, private CFileStateOwner {
 public:
  // `loc_cache` can be null.
  // REQUIRES: the database of `ana_mgr` and the managers of the singletons exist and outlive the
  // cache.
  CInfoCache(CAnalysisManager* ana_mgr, CLocationCache* loc_cache, CInfoCacheLimits limits = {});
  // Calls destroy(), which writes what is unwritten. Logs an error of the database; an owner that
  // wants the exception calls destroy() itself.
  ~CInfoCache() override;

  // Sets the scan names, the primary one first. Different names clear the cache; the same names
  // change nothing. Throws CValueError for fewer than two names, and for a name that another one
  // begins with.
  void SetScanNames(const std::vector<Text>& scan_names);

  // The disk time of the file's content as the host sees it: kFileModifiedInMemoryMtime for a
  // modified open buffer, the time of the last read or write for an unmodified one, and the time on
  // disk for a file without a buffer.
  virtual DiskTime GetDiskMTime(Loc loc);

  // ---- Reading (read.cc).

  // The merged record of the scope, or null when it has no primary record. With `merge_secondary`
  // the secondary files of the file take part. `needs_scan_dict`, if given, receives the scans that
  // would make the answer better, also when the answer is null.
  // REQUIRES: `loc` is not null. Asserted; with assertions off, the answer is null.
  // REQUIRES: `needs_scan_dict` is null or empty. Asserted.
  // REQUIRES: the caller does not change the record, which it shares with the cache.
  //
  // A repeated call costs one hash look-up (a few in a subclass, see TakeShortcuts), and no
  // allocation unless it reports scans. The first call for a scope reads the database once, for the
  // scope and its neighbours.
  virtual CScopeInfoPtr GetScopeInfo(Loc loc, TextView scope_name, bool merge_secondary = true,
                                     CNeedsScanDict* needs_scan_dict = nullptr);
  // The merged records of these scopes, in order; null for a scope without a primary record. Reads
  // the scopes of the file that are not in memory with one database call.
  std::vector<CScopeInfoPtr> GetMultipleScopeInfos(Loc loc, const std::vector<Text>& scope_name_seq,
                                                   bool merge_secondary = true);
  // The names of all known scopes of the file, in memory or not.
  TextSet GetAllScopeNames(Loc loc, bool include_inst_scopes = false,
                           bool include_secondary_files = false);

  // ---- Adding (add.cc).

  // Stores one record; true if the stored information changed. A record that was made from other
  // content than the file's present content is refused, which is normal: scans lag behind edits.
  // With `allow_write` housekeeping, and thus writing, may run now instead of in idle time.
  virtual bool AddScopeInfo(const CScopeInfoPtr& scope_info, bool allow_write = false);
  // Stores everything that one scan of one scope found. What the same scan found earlier and does
  // not find now is removed, so an empty list removes everything. Always returns true.
  virtual bool AddScopeInfoListForSingleScan(Loc scanned_loc, TextView scanned_scope,
                                             TextView scan_name,
                                             const std::vector<CScopeInfoPtr>& scope_info_list,
                                             bool allow_write = false);
  // For each item, removes the first record that matches it, whatever its scan. Emits no signal.
  // REQUIRES: the caller deals with whatever depends on the removed records.
  void RemoveScopeInfoSeq(
      const std::vector<std::variant<CScopeInfoPtr, CScopeInfoToRemove>>& to_remove);

  // Adds to `changed`, for each file, the third field of each key (its scan name), and then the
  // primary files of every file in `changed`. Nothing in the module calls it; engines that keep
  // their own dependents do.
  void DisableAddDependentsToChangedDict(CChangedDict& changed, const CKeysDict& dep_key_dict);

  // ---- Scans (invalidate.cc, write.cc).

  // Marks these keys as stale, adds their scans to `needs_scan` if given, and emits kNeedsScanAdded
  // unless `emit_needs_scan_added` is false.
  void AddDepKeysToNeedsScan(const CScopeInfoKeySet& dep_keys, CNeedsScanSet* needs_scan = nullptr,
                             Priority priority = std::nullopt, bool emit_needs_scan_added = true);
  // Removes the stale records of the scan that it did not renew, since their scopes no longer
  // exist. A host calls it when the scan of the scope (kWildcardScope for the whole file) has
  // finished.
  void FinishedWithScans(Loc loc, TextView scope_name, TextView scan_name);
  // Notes that the scan of the file is done. With `done` false nothing is taken off the list (see
  // write.cc).
  // REQUIRES: before the primary scan is noted as done, the record of its module scope was added.
  void ChangeScansDone(Loc loc, TextView scan_name, bool done);
  // The scans done of each file at the given time: from memory for files whose entry has that time,
  // otherwise from the database in one call.
  CScansDoneDict GetScansDoneForMultipleFiles(const CLocMtimeDict& loc_mtime_dict);

  // ---- Writing and clearing (write.cc, changes.cc).

  // Writes what is unwritten of all files.
  void WriteToDatabase();
  // Writes what is unwritten of these files.
  void WriteToDatabase(const std::vector<Loc>& loc_seq);
  // Forgets everything in memory without writing it.
  void Clear();
  // Forgets these files in memory, and with `clear_db` deletes them from the database too.
  void ClearFiles(const std::vector<Loc>& loc_seq, bool clear_db);
  // Makes the database look for changes by other processes now.
  void CheckForDatabaseChanges();

  // ---- Queries (queries.cc).

  // All imports in these files: those in memory for a file with an entry, those in the database for
  // the others.
  std::vector<CImportEquiv> GetAllImports(const std::vector<Loc>& loc_seq);
  // All classes in these files. Unlike GetAllImports, it queries the database also for files that
  // have scopes outside memory; the result is then sorted and without duplicates.
  std::vector<CClassEquiv> GetAllClasses(const std::vector<Loc>& loc_seq);
  // The disk time in the entry of the file. Without an entry, the present time if `read_if_needed`,
  // otherwise absent. Creates no entry.
  virtual std::optional<DiskTime> GetDiskModTimeUsed(Loc loc, bool read_if_needed);

  // ---- For the host that runs the scans (held.cc). These look at memory alone: they create no
  // entry, read no database and trim nothing.

  // The files that have an entry, in the order in which they got it.
  std::vector<Loc> GetFilesHeld() const;
  bool IsFileHeld(Loc loc) const { return _fPerFileDict.Contains(loc); }
  // What the entry of the file says; absent without an entry.
  std::optional<CHeldFile> GetFileHeld(Loc loc) const;
  // The records for the scope that are in memory, the one of the primary scan first.
  std::vector<CHeldRecord> GetRecordsHeld(Loc loc, TextView scope_name) const;
  // The number of records for the file that wait to be written.
  size_t GetUnwrittenCount(Loc loc) const;
  // Whether all records for the file and all that were scanned from it are written and up to date.
  // A host that has run all scans of a settled file can clear it from memory: nothing is lost.
  bool IsSettled(Loc loc) const;
  // The keys of the records that scans of the file have made, of these scopes or of all; for this
  // file and for others.
  CScopeInfoKeySet GetKeysScannedFrom(Loc loc, const TextSet* scope_names = nullptr) const;
  // Those among them whose scans have to run again.
  CScopeInfoKeySet GetStaleKeysScannedFrom(Loc loc) const;
  CHeldCounts GetCounts() const;
  // Takes all scans of the file off the list of those done, so that they are asked for again; the
  // next write of the file stores that. False without an entry.
  bool ForgetScansDone(Loc loc);
  // Marks a record as stale without asking for its scan: for a scope that the host knows to be gone
  // FinishedWithScans then removes it. An unknown key is ignored.
  void MarkStale(const CScopeInfoKey& key);

  // ---- For tools and tests.

  // Everything that the cache holds, as text: sorted where order has no meaning, in order where it
  // does.
  Text DebugDump() const;
  // Asserts what always holds between operations, here and on the floors below.
  void CheckInvariants() const;
  // The raw tables, for tests and the dump alone.
  const CInsertionOrderedDict<Loc, CPerFilePtr>& DbgGetPerFileDict() const { return _fPerFileDict; }
  CCrossFileData& DbgGetCrossFileData() { return _fCrossFileData; }
  // Whether the cache holds a merged record that depends on a scope of the file.
  bool HasMergedInfoOf(Loc loc) const;
  // Sizes, for reports. MemoryUse walks over everything that the cache holds.
  CMemoryUse MemoryUse() const;
  size_t UsedScopeCount() const { return _fUsedScopesDict.size(); }
  size_t MergedInfoCount() const { return _fMergedInfoCache.Size(); }
  uint64_t MergedInfoHits() const { return _fMergedInfoCache.fHits; }
  uint64_t MergedInfoMisses() const { return _fMergedInfoCache.fMisses; }

  // For CScopeInfo::GetSerializedData.
  Bytes EncodeScopeInfo(const CScopeInfo& info) override;

  // The scan names; ":unset" alone until SetScanNames.
  // REQUIRES: only SetScanNames writes it.
  std::vector<Text> fScanNames;
  CLocationCache* const fLocCache;
  CScopeInfoSerializer fInfoSerializer;
  CLogger fLog;

 protected:
  void _destroy_impl() override;

  // The entry of the file, brought up to date with the database on first use and after each change
  // of the database. Null only if there is none and `create` is false. Makes no database call for a
  // file without a valid disk time.
  CPerFilePtr GetPerFile(Loc loc, bool create) override;

  virtual void AddPrimaryFileToChangedDict(CChangedDict& changed_dict) const;
  virtual void MaybeInvalidateDependantScans(const CScopeInfo& info, CScopeInfoKeySet& dep_keys,
                                             CNeedsScanSet& needs_scan);
  virtual CSecondaryFiles GetSecondaryFiles(Loc loc);
  virtual void AddInstanceScopesToDiscard(std::vector<Text>& scope_list);
  virtual void ScheduleWriteToDatabaseTimeout();
  virtual void CancelWriteToDatabaseTimeout();
  virtual void CB_WriteToDatabaseTimeout();
  // A null set stands for every file that has an entry.
  virtual void CB_ExternalDatabaseChanged(const CLocSet* changed_loc_set);
  virtual void InvalidateScans(const CKeysDict& keys_dict, bool whole_files = false,
                               CNeedsScanSet* needs_scan = nullptr,
                               Priority priority = std::nullopt, bool emit_needs_scan_added = true);

  // Allows repeated reads to skip GetPerFile and GetSecondaryFiles. Without this permission every
  // read of a subclass calls them.
  // REQUIRES: the subclass overrides neither of the two, or its overrides always return what those
  // here return.
  void TakeShortcuts() { _fTakesShortcuts = true; }

 private:
  using CUsedScopes = CUsageOrderedDict<CScopeRef, bool, CScopeRefHash, CScopeRefEqual>;

  // What a look-up of a merged record found on its way, so that the next look-up takes one step.
  // Valid while `stamp` equals _fShortcutStamp: since then no entry, no used scope and no list of
  // secondary files has been removed.
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
    mutable CShortcut shortcut;  // not part of the key's value
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
  // A request. Equal to the key of the merged record that answered the same request before, as long
  // as that key's shortcut is valid.
  struct CRequestView {
    Loc loc;
    TextView scope_name;
    bool merge_secondary;
    uint64_t stamp;
  };
  // Leaves out the secondary files, which nearly always follow from the file.
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
  // Compares the record by identity and the scans by value.
  struct CMergedValue {
    CScopeInfoPtr merged_info;
    std::shared_ptr<const CNeedsScanDict> needs_scan;  // null when empty, as nearly all are
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
  // Whether the entry reflects the database, or needs nothing from it.
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
  ptrdiff_t _fMaxInfoCount;        // max scopes in memory
  ptrdiff_t _fMaxForAllScopeRead;  // max scopes in one read

  CAnalysisManager* const _fAnaMgr;
  CSavableManager* const fSavableMgr;
  CCacheManager* const fCacheMgr;

  // Every file seen; each is watched. Only a trim or a clear removes an entry.
  CInsertionOrderedDict<Loc, CPerFilePtr> _fPerFileDict;
  CCrossFileData _fCrossFileData;
  // The scopes in memory, in order of use. The value is true for a scope that GetScopeInfo has
  // returned, false for one that was only read or stored.
  CUsedScopes _fUsedScopesDict;
  // Merged records and the scans that would improve them, purged when a scope that they depend on
  // changes.
  CScopeDependantCache<CMergedKey, CMergedValue, CMergedKeyHash, CMergedKeyEqual> _fMergedInfoCache;
  // The secondary files of each file, and the reverse: the files that name a secondary file. Filled
  // file by file on request; cleared together when import resolution changes.
  CInsertionOrderedDict<Loc, CSecondaryFiles> _fSecondaryFiles;
  CInsertionOrderedDict<Loc, CLocSet> _fReverseSecondaryFiles;
  // Incremented whenever something that a shortcut can point to is removed.
  uint64_t _fShortcutStamp = 1;
  bool _fTakesShortcuts = false;  // TakeShortcuts was called; matters for subclasses only
  // Kept, since an operation in progress may still be walking over them (see SetScanNames).
  std::vector<std::vector<Text>> _fFormerScanNames;
  velk::Tag _fIdleCallbackTag = 0;            // of the pending idle call, 0 for none
  velk::Tag _fTimeoutForWriteToDatabase = 0;  // of the pending write, 0 for none
};

}  // namespace pysource::scopeinfo
