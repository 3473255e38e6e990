// The analysis database: what scans found, stored on disk for the next process.
//
// Implemented by the host (for example standalone/sqlitedb). It is called on the main thread,
// between two keystrokes, so it must not block: a save that cannot be done now returns false, and
// the caller keeps the records and tries again.
#pragma once

#include <optional>
#include <unordered_set>
#include <vector>

#include "pysource/host/destroyable.h"
#include "pysource/host/location.h"
#include "pysource/host/ordereddict.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"

namespace pysource {

// One record as the database stores and returns it. Elements 0 to 4 are the key.
struct CDatabaseRecord {
  Loc for_loc;                        // 0: the file that the record is for
  Text for_scope;                     // 1
  std::optional<Text> scan_name;      // 2
  Loc scanned_loc;                    // 3
  std::optional<Text> scanned_scope;  // 4
  CScopesSeenPtr scopes_seen;         // 5: null when absent; the receiver gets its own copy
  Bytes class_equivs;                 // 6: class items joined with ";"
  Bytes import_equivs;                // 7: import items joined with ";"
  Bytes data;                         // 8: the encoded record
  int64_t reserved = -1;              // 9: always -1

  // All ten elements in order, as a tuple.
  Text Repr() const;
};

// An import found in a scope of a file.
struct CImportEquiv {
  Loc loc;
  Text scope_name;
  Bytes ibytes;
  friend bool operator==(const CImportEquiv&, const CImportEquiv&) = default;
};

// A class found in a file.
struct CClassEquiv {
  Loc loc;
  Bytes ibytes;
  friend bool operator==(const CClassEquiv&, const CClassEquiv&) = default;
  // By location, then by info bytes.
  friend bool operator<(const CClassEquiv& a, const CClassEquiv& b) {
    return a.loc == b.loc ? a.ibytes < b.ibytes : a.loc < b.loc;
  }
};

using CLocSet = std::unordered_set<Loc>;
using CLocMtimeDict = CInsertionOrderedDict<Loc, DiskTime>;
using CScansDoneDict = CInsertionOrderedDict<Loc, Text>;

class CAnalysisDb;

// Another process has changed the database: the files concerned, or null for every file.
inline constexpr CSignal<CAnalysisDb, const CLocSet*> kExternalDbContentsChanged{
    "external-db-contents-changed"};

// The rows of each file belong to one disk time: a read for another time finds nothing.
class CAnalysisDb : public CDestroyable {
 public:
  CAnalysisDb();
  ~CAnalysisDb() override;

  // The names of all scopes of the file that have a record of exactly this scan at exactly this
  // time.
  virtual std::vector<Text> ReadScopeNames(Loc loc, TextView primary_scan_name,
                                           DiskTime disk_mtime) = 0;

  // The records of the file for these scans, these scopes and this time, sorted by scope, scan,
  // scanned file and scanned scope. `scope_names` can be kWildcardScope alone, for all scopes. The
  // result can contain further records of the file.
  virtual std::vector<CDatabaseRecord> ReadScopeDataRecords(Loc loc,
                                                            const std::vector<Text>& scan_names,
                                                            const std::vector<Text>& scope_names,
                                                            DiskTime disk_mtime) = 0;

  // The scans-done text that was saved for each of these files at the given time. Files without one
  // are left out.
  virtual CScansDoneDict GetScansDone(const CLocMtimeDict& loc_mtime_dict) = 0;

  // Stores the records and the scans done of one file, all or nothing; true if stored. Rows of the
  // file for another time are deleted. A record with the same key is replaced; the others stay. An
  // empty list stores only the scans done.
  virtual bool SaveDataForFile(Loc loc, const std::vector<CDatabaseRecord>& records,
                               TextView scans_done, DiskTime disk_mtime) = 0;

  // Deletes all rows of these files; true if deleted.
  virtual bool ClearInfoForFiles(const std::vector<Loc>& loc_list) = 0;

  // All imports, or all classes, in the records of that scan for these files.
  virtual std::vector<CImportEquiv> GetAllImports(const std::vector<Loc>& db_locs,
                                                  TextView primary_scan_name) = 0;
  virtual std::vector<CClassEquiv> GetAllClasses(const std::vector<Loc>& db_locs,
                                                 TextView primary_scan_name) = 0;

  // Looks for changes by other processes, and returns a line for the log about what it found. Emits
  // kExternalDbContentsChanged for the changes before it returns.
  virtual Text CheckForExternalChanges() = 0;
};

}  // namespace pysource
