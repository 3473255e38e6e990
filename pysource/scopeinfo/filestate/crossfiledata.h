// What concerns more than one file: every record key in memory, under both of its addresses, with
// its standing towards the database and towards its scan.
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
// the scope that the record is for and the scope that was scanned. The records themselves lie in
// the per-file entries; here are only keys.
//
// The life of a key is its membership of five sets:
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
//   RemoveInfoKey leads from everywhere back to (none).
//
// What always holds between operations, and CheckInvariants asserts:
//   1  each index holds exactly the keys of its set, each under its address;
//   2  N, D and W are subsets of M, and so are the keys of live records;
//   3  D and W have no key in common;
//   4  C is a subset of W;
//   5  N and W have no key in common: what is known to be stale is never written.
// N and D may overlap: the database keeps a stale record until a new scan replaces it.
//
// Every Get operation hands out a new set, so that its caller may change the indexes while walking
// it. An absent filter (null) lets everything through, and so does one that holds "*"; a present
// empty one lets nothing through.
class CCrossFileData final : public CDestroyable {
 public:
  explicit CCrossFileData(CFileStateOwner& info_cache);
  ~CCrossFileData() override;

  // Forgets every key.
  void Clear();

  // Makes the key known, with its live record if there is one: null drops a live record.
  void AddInfoKey(const CScopeInfoKey& key, const CScopeInfoPtr& info,
                  bool remove_needs_scan = false);
  // Takes the key out of everything. An unknown key is no error.
  void RemoveInfoKey(const CScopeInfoKey& key);

  // Marks the record as stale, which cancels a pending write; true if it is newly marked. A key
  // without a record is left alone: there is nothing to rescan.
  bool AddNeedsScanInfoKey(const CScopeInfoKey& key);
  // `key_set` must not be one of the sets of this class.
  void AddNeedsScanInfoKeySet(const CScopeInfoKeySet& key_set);
  void RemoveNeedsScanInfoKey(const CScopeInfoKey& key);
  // Marks everything that was scanned from these scopes of the file.
  void InvalidateForScannedLoc(Loc loc, const TextSet* scope_name_set = nullptr);

  CScopeInfoKeySet GetInfoKeysByForLoc(Loc loc, const TextSet* scope_name_set = nullptr,
                                       const TextSet* scan_name_set = nullptr) const;
  CScopeInfoKeySet GetScannedLocInfoKeys(Loc loc, const TextSet* scope_name_set = nullptr,
                                         const TextSet* scan_name_set = nullptr) const;
  // Those of one scan of one scope, for who asks at every record and has no sets of the names.
  CScopeInfoKeySet GetScannedLocInfoKeys(Loc loc, TextView scope_name, TextView scan_name) const;
  CScopeInfoKeySet GetScannedLocNeedsScanInfoKeys(Loc loc, const TextSet* scope_name_set = nullptr,
                                                  const TextSet* scan_name_set = nullptr) const;

  // Asserts that the key is not waiting to be written.
  void AddInDatabaseInfoKey(const CScopeInfoKey& key);
  void RemoveInDatabaseInfoKey(const CScopeInfoKey& key);
  CScopeInfoKeySet GetInDatabaseInfoKeys(Loc loc, const TextSet* scope_name_set = nullptr,
                                         const TextSet* scan_name_set = nullptr) const;

  // Queues the record for the database; the key is then no longer in the database as it stands.
  // Asserts that the key is known. That it does not need a scan is the caller's duty.
  void AddToWriteInfoKey(const CScopeInfoKey& key);
  void RemoveToWriteInfoKey(const CScopeInfoKey& key);
  CScopeInfoKeySet GetToWriteInfoKeys(Loc loc, const TextSet* scope_name_set = nullptr,
                                      const TextSet* scan_name_set = nullptr) const;
  // The size of that set, without making it: trimming asks for it scope by scope.
  size_t GetToWriteInfoKeyCount(Loc loc, const TextSet* scope_name_set = nullptr,
                                const TextSet* scan_name_set = nullptr) const;
  size_t GetToWriteInfoKeyCount(Loc loc, TextView scope_name) const;

  // Asserts that the key is waiting to be written.
  void AddCouldNotWriteInfoKey(const CScopeInfoKey& key);
  // Without that check: callers pass keys that they took from GetToWriteInfoKeys.
  void AddCouldNotWriteInfoKeySet(const CScopeInfoKeySet& key_set);
  void RemoveCouldNotWriteInfoKey(const CScopeInfoKey& key);

  // Keeps the live record of the key, and what it has seen; null drops the record and leaves the
  // dependencies as they are.
  void UpdateExistingSourceInfo(const CScopeInfoKey& key, const CScopeInfoPtr& info);
  // Null when the key has no live record.
  CScopeInfoPtr LookupExistingSourceInfo(const CScopeInfoKey& key) const;

  // The keys of the scans that looked at one of these scopes of the file. Known for records that
  // came from a scan since the start; records read from the database are checked by their times
  // instead.
  CScopeInfoKeySet GetDependentScanKeys(Loc loc, const TextSet& scope_name_set) const;
  CScopeInfoKeySet GetDependentScanKeysOfScope(Loc loc, TextView scope_name) const;

  void CheckInvariants() const;
  // Of the sets and indexes, without the keys themselves and the live records.
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

  CScopeInfoKeySet _fAllCouldNotWriteInfoKeys;  // C; never asked for by file, so without an index

  // Live records, so that one is decoded once while it lasts.
  CInsertionOrderedDict<CScopeInfoKey, CScopeInfoPtr> _fExistingScopeInfo;

  // Used for its reverse index alone: from a scope to the keys of the scans that looked at it.
  CScopeDependantCache<CScopeInfoKey, bool> _fDependentScans;
  size_t _fEmptyDependencies = 0;  // entries made since they were last taken out
};

}  // namespace pysource::scopeinfo
