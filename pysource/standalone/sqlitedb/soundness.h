// Whether a database holds what saves have written, all of it and nothing else; and what is done
// where it does not.
//
// Every page, every row and every tally is looked at (schema.h tells of these). What is wrong is of
// one of two kinds:
//
//   of single files   records whose checksum fails, records that are missing, a row of `files` whose
//                     name still fits its number. Their rows are dropped, so that their scans are
//                     wanted again, and so are those of files that have said something of them.
//   of the whole      pages that SQLite finds malformed, rows of the small tables, a file that is
//                     missing: nothing in it can be relied upon, and it is to be set aside.
#pragma once

#include <cstdint>
#include <set>
#include <string>
#include <vector>

#include "pysource/host/text.h"
#include "pysource/standalone/sqlitedb/session.h"

namespace pysource::standalone::sqlitedb {

struct CSoundness {
  std::vector<Text> faults;   // a line each, which names the database; empty: it is sound
  bool is_lost = false;       // of the whole
  std::set<int64_t> to_drop;  // the files that are to be scanned again, by number
  std::set<int64_t> orphans;  // places of which the files are not known any more
};

// Costs as much as there is in the database. Begins no transaction: to be called within one, or
// what other processes do meanwhile looks like damage. SQLite's refusals are thrown as
// CSqliteFailure, but for damage.
CSoundness CheckSoundness(CSession& session, const std::string& shown);

// Drops what is wrong with single files. Within a writing transaction, which is that of the check.
void DropUnsound(CSession& session, const CSoundness& soundness);

}  // namespace pysource::standalone::sqlitedb
