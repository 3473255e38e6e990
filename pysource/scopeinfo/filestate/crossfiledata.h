// The state that concerns more than one file: every record key in memory, under both of its
// addresses, with its state in the database and whether its scan must be run again.
#pragma once

#include "pysource/host/destroyable.h"
#include "pysource/host/location.h"
#include "pysource/host/memoryuse.h"
#include "pysource/host/ordereddict.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/dependantcache/scopedependantcache.h"
#include "pysource/scopeinfo/filestate/keysbyaddress.h"
#include "pysource/scopeinfo/records/scopeinfo.h"

namespace pysource::scopeinfo {

class CFileStateOwner;

// A scan of one scope can produce records for scopes of other files, so a key has two addresses:
// the scope that the record is for and the scope that was scanned. The records themselves are in
// the per-file entries; this class holds their keys, the live record objects and what those depend
// on. It decodes nothing, and neither reads nor writes the database.
//
// The state of a key is its membership of five sets:
//
//   M  known         has a record in some per-file entry
//   N  needs scan    the record is out of date: the scan must be run again
//   D  in database   the database holds the record as it stands
//   W  to write      the record waits to be written
//   C  not written   the last attempt to write it failed; it stays in W
//
//                    read from the database
//        (none) ────────────────────────────────▶ M D ◀───────────┐
//          │                                       │  ▲            │ written
//          │ scan result, file on disk             │  │            │
//          ├──────────────────────────────────▶ M W ──┼────────────┘
//          │                                     │ ▲  │  write failed: M W C, tried again later
//          │ scan result, file edited            │ │  │
//          └──────────▶ M ───────────────────────┼─┘  │
//                       │   file is saved        │    │
//                       ▼                        ▼    ▼
//                      M N  ◀── scan invalidated ── M N D     a new scan result clears N
//
//   RemoveInfoKey leads from every state back to (none).
//
// What always holds between operations, and what CheckInvariants asserts:
//   1  each index holds exactly the keys of its set, each under its address;
//   2  N, D and W are subsets of M, and so are the keys of live records;
//   3  D and W have no key in common;
//   4  C is a subset of W;
//   5  N and W have no key in common: what is known to be stale is never written.
// N and D may overlap: the database keeps a stale record until a new scan replaces it.
//
// Every Get operation returns a new set, so the caller may change the indexes while walking over
// it. Filters: null lets every key through, and so does a set that holds "*"; an empty set lets no
// key through.
//
// REQUIRES: a location that is passed in is not null.
class CCrossFileData final : public CDestroyable {
 public:
  explicit CCrossFileData(CFileStateOwner& info_cache);
  ~CCrossFileData() override;

  // Forgets every key.
  void Clear();

  // Makes the key known, with its live record; null drops the live record, if there is one. With
  // `remove_needs_scan` the key is no longer stale.
  void AddInfoKey(const CScopeInfoKey& key, const CScopeInfoPtr& info,
                  bool remove_needs_scan = false);
  // Removes the key from all sets and indexes. An unknown key is not an error.
  void RemoveInfoKey(const CScopeInfoKey& key);

  // Marks the record as stale, which cancels a pending write; true if it was not marked before. An
  // unknown key is ignored: there is no record to renew.
  bool AddNeedsScanInfoKey(const CScopeInfoKey& key);
  // The same for each key.
  // REQUIRES: `key_set` is not one of the sets of this class.
  void AddNeedsScanInfoKeySet(const CScopeInfoKeySet& key_set);
  void RemoveNeedsScanInfoKey(const CScopeInfoKey& key);
  // Marks everything that was scanned from these scopes of the file as stale.
  void InvalidateForScannedLoc(Loc loc, const TextSet* scope_name_set = nullptr);

  CScopeInfoKeySet GetInfoKeysByForLoc(Loc loc, const TextSet* scope_name_set = nullptr,
                                       const TextSet* scan_name_set = nullptr) const;
  CScopeInfoKeySet GetScannedLocInfoKeys(Loc loc, const TextSet* scope_name_set = nullptr,
                                         const TextSet* scan_name_set = nullptr) const;
  // The same for one scan of one scope, for callers that ask for every record and have no sets of
  // the names.
  CScopeInfoKeySet GetScannedLocInfoKeys(Loc loc, TextView scope_name, TextView scan_name) const;
  CScopeInfoKeySet GetScannedLocNeedsScanInfoKeys(Loc loc, const TextSet* scope_name_set = nullptr,
                                                  const TextSet* scan_name_set = nullptr) const;

  // REQUIRES: the key is not waiting to be written. Asserted.
  void AddInDatabaseInfoKey(const CScopeInfoKey& key);
  void RemoveInDatabaseInfoKey(const CScopeInfoKey& key);
  CScopeInfoKeySet GetInDatabaseInfoKeys(Loc loc, const TextSet* scope_name_set = nullptr,
                                         const TextSet* scan_name_set = nullptr) const;

  // Queues the record for writing; the key then no longer counts as being in the database.
  // REQUIRES: the key is known (asserted) and not stale (not asserted).
  void AddToWriteInfoKey(const CScopeInfoKey& key);
  void RemoveToWriteInfoKey(const CScopeInfoKey& key);
  CScopeInfoKeySet GetToWriteInfoKeys(Loc loc, const TextSet* scope_name_set = nullptr,
                                      const TextSet* scan_name_set = nullptr) const;
  // The size of that set, without making the set: trimming asks for it scope by scope.
  size_t GetToWriteInfoKeyCount(Loc loc, const TextSet* scope_name_set = nullptr,
                                const TextSet* scan_name_set = nullptr) const;
  size_t GetToWriteInfoKeyCount(Loc loc, TextView scope_name) const;

  // REQUIRES: the key is waiting to be written. Asserted.
  void AddCouldNotWriteInfoKey(const CScopeInfoKey& key);
  // The same for each key, without the assertion.
  // REQUIRES: `key_set` is a result of GetToWriteInfoKeys.
  void AddCouldNotWriteInfoKeySet(const CScopeInfoKeySet& key_set);
  void RemoveCouldNotWriteInfoKey(const CScopeInfoKey& key);

  // Stores the live record of the key and the scopes that it has seen. Null drops the live record
  // and leaves the dependencies as they are.
  void UpdateExistingSourceInfo(const CScopeInfoKey& key, const CScopeInfoPtr& info);
  // Null when the key has no live record.
  CScopeInfoPtr LookupExistingSourceInfo(const CScopeInfoKey& key) const;

  // The keys of the scans that looked at one of these scopes of the file. Only known for records
  // that a scan has made since the start of the process; records from the database are checked by
  // the times in their scopes seen instead.
  CScopeInfoKeySet GetDependentScanKeys(Loc loc, const TextSet& scope_name_set) const;
  CScopeInfoKeySet GetDependentScanKeysOfScope(Loc loc, TextView scope_name) const;

  void CheckInvariants() const;
  // The memory of the sets and indexes, without the keys themselves and the live records.
  CMemoryUse MemoryUse() const;

  CFileStateOwner& _fInfoCache;

  CScopeInfoKeySet _fAllInfoKeys;  // M
  CKeysByAddress _fInfoKeysByScannedLoc{KeyAddress::kScanned};
  CKeysByAddress _fInfoKeysByForLoc{KeyAddress::kFor};

  CScopeInfoKeySet _fAllNeedsScanInfoKeys;  // N
  CKeysByAddress _fNeedsScanInfoKeyByScannedLoc{KeyAddress::kScanned};
  CKeysByAddress _fNeedsScanInfoKeyByForLoc{KeyAddress::kFor};

  CScopeInfoKeySet _fAllInDatabaseInfoKeys;  // D
  CKeysByAddress _fInDatabaseInfoKeysByForLoc{KeyAddress::kFor};

  CScopeInfoKeySet _fAllToWriteInfoKeys;  // W
  CKeysByAddress _fToWriteInfoKeysByForLoc{KeyAddress::kFor};

  CScopeInfoKeySet _fAllCouldNotWriteInfoKeys;  // C; never queried by file, so it has no index

  // Live records: a record is decoded once and shared while it is here.
  CInsertionOrderedDict<CScopeInfoKey, CScopeInfoPtr> _fExistingScopeInfo;

  // Used only for its reverse index: from a scope to the keys of the scans that looked at it.
  CScopeDependantCache<CScopeInfoKey, bool> _fDependentScans;
  size_t _fEmptyDependencies = 0;  // empty entries made since they were last removed
};

}  // namespace pysource::scopeinfo
