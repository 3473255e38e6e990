// What the cache knows of one file.
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

// A record as it lies in memory and, but for the last byte of its data, in the database. Its scan
// name, scanned location and scanned scope are those of its key; the file and scope that it is for
// are where it is filed.
//
// The data is four parts with a zero byte between them: the encoded record, its class equivalences,
// its import equivalences, and "1" while the record is from a scan and still to be written or "0"
// when the database has it.
struct CSerializedRecord {
  CScopeInfoKey key;
  Bytes data;
  CScopesSeenPtr scopes_seen;  // null when absent; can be shared with a live record
  bool incomplete = false;
};

// One file: its records, its disk time as the cache sees it, what the database holds of it, and the
// scans done. The standing of each record towards database and scan is in CCrossFileData; the two
// are kept in step by the operations here:
//
//   - every record has its key in _fAllInfoKeys, until DiscardInfoForScannedScopes takes a record
//     away silently; its key stays, so that it is scanned again;
//   - one key has at most one record;
//   - db_scope_names_not_loaded is all_db_scope_names without the names in serialized_data_dict.
//
// Each source file of this class is one side of it: perfileentry.cc the file as a whole,
// perfileread.cc records to merge, perfilestore.cc records in and out, perfilediscard.cc giving
// records up.
class CPerFileEntry {
 public:
  using RecordList = std::vector<CSerializedRecord>;
  using RecordDict = CInsertionOrderedDict<Text, RecordList, TextHash>;

  CPerFileEntry(CFileStateOwner& info_cache, Loc file_loc, DiskTime mtime);
  CPerFileEntry(const CPerFileEntry&) = delete;
  CPerFileEntry& operator=(const CPerFileEntry&) = delete;

  // ---- The file as a whole.

  // Forgets all records that are for this file; what was scanned from it for other files stays.
  // With `also_clear_db` the database rows are to go at the next write; a pending deletion is never
  // cancelled here.
  void ClearAllInfo(bool also_clear_db = false);
  void UpdateScopeNamesNotLoaded();
  // Stores the text and, if it is another one, marks it as to be written.
  void SetScansDone(TextView scans_done);
  // Whether the primary scan's name occurs in fScansDone.
  bool IsPrimaryScanDone() const;
  // Moves the file to another disk time. Records stay; their standing changes:
  //
  //   from            to              database      scans                    records
  //   on disk         other on disk   forgotten     all from here are stale  kept, stale
  //   on disk         edited          forgotten     unchanged                kept, restamped
  //   edited          on disk         to be written unchanged                kept, restamped
  //
  // The keys that became stale are stored in `keys_dict` under this file, if there are any.
  void UpdateDiskMtime(DiskTime mtime, CKeysDict& keys_dict);

  TextSet GetScopeNamesInMemory() const;
  // The names that the database holds and memory does not; none while the file is modified in
  // memory. Good until the next change of this entry.
  const TextSet& GetScopeNamesNotInMemory() const;
  // Those of them that are in `name_set`.
  TextSet GetScopeNamesNotInMemory(const TextSet& name_set) const;
  TextSet GetAllScopeNames() const;
  // How many records are in memory, of the whole file or of one scope.
  size_t GetSerializedDataCount() const;
  size_t GetSerializedDataCount(TextView scope_name) const;
  size_t DbgGetSerializedDataCount(TextView scope_name) const {
    return GetSerializedDataCount(scope_name);
  }

  // ---- Reading.

  // The records of the scope that can be trusted, the primary one first; absent when there is no
  // primary one. What is stale is added to `needs_scan_dict`, and every scope that any of the
  // records has seen to `all_scopes_seen`.
  std::optional<std::vector<CScopeInfoPtr>> GetInfoListToMerge(TextView scope_name,
                                                               CScopeRefSet& all_scopes_seen,
                                                               CNeedsScanDict& needs_scan_dict);
  // Whether every file still has the time at which it was seen. Of a file without an entry the host
  // is asked, which may bring news; `before_asking`, if given, is called first.
  bool CheckScopesSeen(const CScopesSeenDict& scopes_seen,
                       const std::function<void()>& before_asking = nullptr);
  static void AddToNeedsScanDict(CNeedsScanDict& needs_scan_dict, Loc scanned_loc,
                                 TextView scanned_scope, TextView scan_name);
  // A new record object, without scopes seen; null when the data cannot be decoded.
  CScopeInfoPtr CreateInfoFromSerializedRecord(TextView scope_name,
                                               const CSerializedRecord& record);

  // ---- Storing.

  // Stores the result of a scan; true when it differs from what was stored.
  bool StoreScopeInfo(const CScopeInfoPtr& info);
  // The one point where a record enters. `data` is the encoded record; `needs_db_write` says that
  // it comes from a scan. True when the record is new or changed.
  bool SetSerializedRecord(const CScopeInfoKey& key, BytesView data, BytesView class_equivs_str,
                           BytesView import_equivs_str, bool needs_db_write,
                           const CScopesSeenPtr& scopes_seen, bool incomplete,
                           const CScopeInfoPtr& info);
  // Removes the first record of the scope that was scanned from there by that scan; "*" is any
  // scan. One call removes one record. True if there was one.
  bool RemoveSerializedRecords(std::optional<TextView> scan_name, TextView scope_name,
                               Loc scanned_loc, std::optional<TextView> scanned_scope);

  struct DatabaseRecords {
    std::vector<CDatabaseRecord> data_list;
    // The keys whose records cannot be written; absent when every key could be.
    std::optional<CScopeInfoKeySet> not_writable_set;
  };
  // What can be written of these keys.
  DatabaseRecords GetDatabaseRecords(const CScopeInfoKeySet& key_set) const;
  // Marks the records of the list as being in the database.
  void AfterSuccessfulDatabaseWrite(const std::vector<CDatabaseRecord>& data_list);

  // ---- Giving up.

  // The records of these scopes are no longer to be written and their primary records go. With
  // `invalidate_dependents` the scans that looked at them become stale, and the records of this
  // file that were scanned from them go.
  void DiscardInfoForScannedScopes(const std::vector<Text>& scope_names,
                                   bool invalidate_dependents);
  // After a scan has finished: removes the records that it should have renewed and did not, since
  // their scopes no longer exist. Null is every scope.
  void RemoveInvalidScans(const TextSet* scope_name_set, const TextSet& scan_name_set,
                          CChangedDict& changed_dict);
  // This entry for its own location; otherwise that of the other file, made if need be.
  CPerFilePtr GetOtherPerFile(Loc other_loc, bool create = true);

  // ---- Fields. The cache writes the five that are marked *.

  CFileStateOwner& fInfoCache;
  const Loc loc;
  // The live primary record of each scope: scanned from that very scope by the primary scan.
  CInsertionOrderedDict<Text, CScopeInfoPtr, TextHash> primary_info_dict;
  // The time that the state in memory belongs to, or one of the markers.
  DiskTime disk_mtime;
  // * The database may hold what is not reflected here: names and scans done are to be read again.
  // Stands beside the time because every read looks at both.
  bool fDatabaseChanged;
  TextSet all_db_scope_names;         // * of the scopes that the database holds, as far as known
  TextSet db_scope_names_not_loaded;  // those of them that have no entry in serialized_data_dict
  RecordDict serialized_data_dict;
  bool clear_db = false;  // * the database rows are to be deleted at the next write
  Text fScansDone;        // * names of the scans done, joined with ","
  // * fScansDone differs from what the database holds. Raised at first, so that a first write
  // stores it.
  bool fScansDoneNeedsToBeWritten = true;

 private:
  class CWalk;

  void UpdateScopesSeenDiskMtime(const CSerializedRecord& record, DiskTime old_mtime) const;
  CScopeInfoPtr GetScopeInfoForKey(const CScopeInfoKey& key, const CSerializedRecord& record);
  void AfterRecordRemoved(const CSerializedRecord& record);
  void RemoveScannedDependantData(TextView scope_name, const TextSet& scope_name_set);
  // The same key, for this very location object.
  CScopeInfoKey OwnKey(const CScopeInfoKey& key) const;

  CCrossFileData& _fCrossFileData;
  // How many walks over records are under way, and what was forgotten since the first of them
  // began, oldest first.
  size_t _fWalks = 0;
  std::vector<RecordDict> _fForgotten;
};

}  // namespace pysource::scopeinfo
