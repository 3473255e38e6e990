// What an index run has to do, worked out before anything is scanned: which files of the tree are
// new or changed, which are gone, and what hangs together with these.
//
// A scan of file A can make records for another file B (A sets an attribute on the module B); they
// are filed under B, at B's disk time. A's own records can rest on B (A imports all names of B), and
// on where the imports of A lead: on places where no file was, and on which folders are packages
// (files/packagemark.h). So a change of one file can touch the other's rows:
//
//   B changed     its old rows go when the new ones are saved, those from A among them
//                 -> A is scanned again, though it did not change
//   A changed     what it said of B before may no longer hold, and a single row cannot be taken out
//   or is gone    -> B's rows are cleared, and B and all files that have rows in B scanned again
//   A rests on B  and B has another time by now
//                 -> A is scanned again
//   imports of A  B is gone or has come, where A looked for it; a folder on the way has become a
//   lead          package or is none any more
//   elsewhere     -> A is scanned again, and as it can speak of other files now than before, its
//                 rows are cleared, and those of the files that it spoke of as above
//
//   a row from A in B was dropped by another process, after A was scanned
//                 -> A is scanned again
//
// All of this is read off the rows and the disk alone, so it does not matter what became of earlier
// runs.
#pragma once

#include <vector>

#include "pysource/host/location.h"
#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/files/disktimes.h"
#include "pysource/standalone/sqlitedb/sqliteanalysisdb.h"

namespace pysource::standalone {

struct CIndexPlan {
  std::vector<CFoundFile> to_scan;    // new and changed files, then those of to_forget
  std::vector<CFoundFile> to_forget;  // unchanged files that have to be scanned again
  std::vector<Loc> to_clear;          // files whose rows are to be deleted
  size_t unchanged = 0;               // files found that need no scan
  size_t removed = 0;                 // files in the database that are gone
};

// Files below the named paths that are in the database and gone from the disk are removed ones;
// files elsewhere are left alone, unless others have rows in them. Reads no file that looks as it
// did when it was last read (files/disktimes.h), and none that is new. Reads what the database says of its files, and those rows that
// tie one file to another: a small part of what it holds.
CIndexPlan MakeIndexPlan(CSqliteAnalysisDb& db, CDiskTimes& times, const CFoundFiles& found);

}  // namespace pysource::standalone
