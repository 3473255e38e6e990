// What the cache knows about one file.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <utility>
#include <vector>

#include "pysource/host/analysisdb.h"
#include "pysource/host/location.h"
#include "pysource/host/ordereddict.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/filestate/crossfiledata.h"
#include "pysource/scopeinfo/filestate/filestateowner.h"
#include "pysource/scopeinfo/filestate/needsscan.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "pysource/scopeinfo/records/scopeinfokeyset.h"

namespace pysource::scopeinfo {

// One record in serialized form. Its scan name, scanned location and scanned scope are those of the
// key; the file and scope that it is for are those under which it is filed.
//
// The data has four parts, separated by zero bytes: the encoded record, its class equivalences, its
// import equivalences, and a flag. The flag is "1" while the record comes from a scan and is still
// to be written, "0" when the database has it. The flag is the only part that the database does not
// store.
struct CSerializedRecord {
  CScopeInfoKey key;
  Bytes data;
  CScopesSeenPtr scopes_seen;  // null when absent; may be shared with a live record
  bool incomplete = false;
};

// One file: its records, its disk time as the cache sees it, what the database holds for it, and
// the scans done. The state of each record (stale, in the database, to be written) is in
// CCrossFileData. The operations here keep the two consistent:
//
//   - every record has its key in _fAllInfoKeys. The reverse does not hold: when
//     DiscardInfoForScannedScopes drops a record, its key stays, so that it is scanned again;
//   - a key has at most one record;
//   - db_scope_names_not_loaded is all_db_scope_names without the names in serialized_data_dict.
//
// An entry emits no signal, writes nothing to the database and never trims; the cache does.
//
// Each source file implements one side of the class: perfileentry.cc the file as a whole,
// perfileread.cc the records to merge, perfilestore.cc storing records and handing them to the
// database, perfilediscard.cc dropping records.
class CPerFileEntry {
 public:
  using RecordList = std::vector<CSerializedRecord>;
  using RecordDict = CInsertionOrderedDict<Text, RecordList, TextHash>;

  CPerFileEntry(CFileStateOwner& info_cache, Loc file_loc, DiskTime mtime);
  CPerFileEntry(const CPerFileEntry&) = delete;
  CPerFileEntry& operator=(const CPerFileEntry&) = delete;

  // ---- The file as a whole.

  // Forgets all records that are for this file; records for other files that were scanned from it
  // stay. With `also_clear_db` the next write deletes the rows of the file. A deletion that is
  // already pending stays pending in any case.
  void ClearAllInfo(bool also_clear_db = false);
  void UpdateScopeNamesNotLoaded();
  // Stores the text. If it differs from the present one, marks it as to be written.
  void SetScansDone(TextView scans_done);
  // Whether the primary scan's name occurs in fScansDone.
  bool IsPrimaryScanDone() const;
  // Moves the file to another disk time. The records stay; their state changes:
  //
  //   from            to              database      scans                    records
  //   on disk         other on disk   forgotten     all from here are stale  kept, stale
  //   on disk         edited          forgotten     unchanged                kept, restamped
  //   edited          on disk         to be written unchanged                kept, restamped
  //
  // A restamped record has the new time: its live primary record does, and so does this file among
  // the scopes that it has seen (with an exception, see UpdateScopesSeenDiskMtime). Stores the keys
  // that became stale, if any, in `keys_dict` under this file.
  void UpdateDiskMtime(DiskTime mtime, CKeysDict& keys_dict);

  TextSet GetScopeNamesInMemory() const;
  // The names of the scopes that the database holds and memory does not; none while the file is
  // modified in memory. Valid until the next change of this entry.
  const TextSet& GetScopeNamesNotInMemory() const;
  // The names among them that are in `name_set`.
  TextSet GetScopeNamesNotInMemory(const TextSet& name_set) const;
  TextSet GetAllScopeNames() const;
  // The number of records in memory, of the whole file or of one scope.
  size_t GetSerializedDataCount() const;
  size_t GetSerializedDataCount(TextView scope_name) const;

  // ---- Reading.

  // The records of the scope that are up to date, the primary one first; absent when there is no
  // primary one. Adds the scans of stale records to `needs_scan_dict`, and every scope that any of
  // the records has seen to `all_scopes_seen`.
  std::optional<std::vector<CScopeInfoPtr>> GetInfoListToMerge(TextView scope_name,
                                                               CScopeRefSet& all_scopes_seen,
                                                               CNeedsScanDict& needs_scan_dict);
  // Whether every file still has the time at which it was seen. For a file without an entry this
  // calls the host, which may emit signals; `before_asking`, if given, is called first.
  bool CheckScopesSeen(const CScopesSeenDict& scopes_seen,
                       const std::function<void()>& before_asking = nullptr);
  static void AddToNeedsScanDict(CNeedsScanDict& needs_scan_dict, Loc scanned_loc,
                                 TextView scanned_scope, TextView scan_name);
  // A new record object without scopes seen; null when the data cannot be decoded.
  CScopeInfoPtr CreateInfoFromSerializedRecord(TextView scope_name,
                                               const CSerializedRecord& record);

  // ---- Storing.

  // Stores the result of a scan; true if it is new or differs from what was stored.
  bool StoreScopeInfo(const CScopeInfoPtr& info);
  // The one place where records enter. `data` is the encoded record; `needs_db_write` means that it
  // comes from a scan. True if the record is new or changed.
  // REQUIRES: the key has a scanned location and a scanned scope, and `data` is not empty.
  bool SetSerializedRecord(const CScopeInfoKey& key, BytesView data, BytesView class_equivs_str,
                           BytesView import_equivs_str, bool needs_db_write,
                           const CScopesSeenPtr& scopes_seen, bool incomplete,
                           const CScopeInfoPtr& info);
  // Removes the first record of the scope that this scan (any scan for "*") made from that file and
  // scope, and no further ones. True if there was one.
  bool RemoveSerializedRecords(std::optional<TextView> scan_name, TextView scope_name,
                               Loc scanned_loc, std::optional<TextView> scanned_scope);

  struct DatabaseRecords {
    std::vector<CDatabaseRecord> data_list;
    // The keys whose records cannot be written; absent when all of them can.
    std::optional<CScopeInfoKeySet> not_writable_set;
  };
  // The records of these keys, as the database takes them.
  // REQUIRES: none of the keys is stale.
  DatabaseRecords GetDatabaseRecords(const CScopeInfoKeySet& key_set) const;
  // Marks the records of the list as being in the database.
  void AfterSuccessfulDatabaseWrite(const std::vector<CDatabaseRecord>& data_list);

  // ---- Dropping records.

  // Cancels pending writes for these scopes and drops their live primary records. With
  // `invalidate_dependents` the scans that looked at these scopes become stale, and the records of
  // these scopes that were scanned from one of them are dropped.
  void DiscardInfoForScannedScopes(const std::vector<Text>& scope_names,
                                   bool invalidate_dependents);
  // After a scan has finished: removes the stale records that it did not renew, since their scopes
  // no longer exist, and adds their scopes to `changed_dict`. A null `scope_name_set` stands for
  // every scope.
  void RemoveInvalidScans(const TextSet* scope_name_set, const TextSet& scan_name_set,
                          CChangedDict& changed_dict);
  // The entry of the file, which can be this one. Null only if there is none and `create` is false.
  // A pointer to this entry does not keep it alive.
  CPerFilePtr GetOtherPerFile(Loc other_loc, bool create = true);

  // ---- Fields. The cache writes those that are marked with *.

  CFileStateOwner& fInfoCache;
  const Loc loc;
  // * The live primary record of each scope: the one that the primary scan of that scope made.
  CInsertionOrderedDict<Text, CScopeInfoPtr, TextHash> primary_info_dict;
  // * The disk time of the content that the state in memory belongs to, or one of the markers.
  DiskTime disk_mtime;
  // * The database may hold something that is not reflected here: the names and the scans done must
  // be read again. Placed beside the time because every read looks at both.
  bool fDatabaseChanged;
  TextSet all_db_scope_names;         // * of the scopes that the database holds, as far as known
  TextSet db_scope_names_not_loaded;  // those among them without an entry in serialized_data_dict
  RecordDict serialized_data_dict;
  bool clear_db = false;  // * the next write deletes the rows of the file
  Text fScansDone;        // * names of the scans done, joined with ","
  // * fScansDone differs from what the database holds. Set at first, so that the first write stores
  // it.
  bool fScansDoneNeedsToBeWritten = true;

 private:
  class CWalk;

  void UpdateScopesSeenDiskMtime(const CSerializedRecord& record, DiskTime old_mtime) const;
  CScopeInfoPtr GetScopeInfoForKey(const CScopeInfoKey& key, const CSerializedRecord& record);
  void AfterRecordRemoved(const CSerializedRecord& record);
  void RemoveScannedDependantData(TextView scope_name, const TextSet& scope_name_set);
  // The same key, with this entry's location object.
  CScopeInfoKey OwnKey(const CScopeInfoKey& key) const;

  CCrossFileData& _fCrossFileData;
  // The number of walks over records in progress, and what was forgotten since the first of them
  // began, oldest first.
  size_t _fWalks = 0;
  std::vector<RecordDict> _fForgotten;
};

}  // namespace pysource::scopeinfo
