// Looking at all of a database: for an index run, which asks what there is, and for people, who
// want it counted or checked. Nothing here repairs anything; SQLite's refusals are thrown as
// CSqliteFailure, but by Verify().
#pragma once

#include <functional>
#include <string>
#include <vector>

#include "pysource/host/text.h"
#include "pysource/standalone/sqlitedb/session.h"
#include "pysource/standalone/sqlitedb/storedrows.h"

namespace pysource::standalone::sqlitedb {

// Every file that has a disk time and a location here.
void VisitFiles(CSession& session, const std::function<void(const CStoredFile&)>& visit);
// The same with the marks of their contents, and those of files without a disk time, then every row
// that ties files together.
void VisitFilesAndTies(CSession& session, const std::function<void(const CStoredFile&)>& visit_file,
                       const std::function<void(Loc, const CContentMark&)>& visit_content,
                       const std::function<void(const CTie&)>& visit_tie);
// The mark of every file that has one and a location here.
void VisitContents(CSession& session, const std::function<void(Loc, const CContentMark&)>& visit);
// Every row that belongs to a file, file by file.
void VisitAllRecords(CSession& session, const std::function<void(const CStoredRow&)>& visit);

uint64_t DatabaseBytes(CSession& session);
CSqliteDbStats StatsOf(CSession& session);
// What SQLite holds for the connection, in bytes.
size_t MemoryUse(CSession& session);

// SQLite's own check of every page, then of every row; what is wrong, a line each. `shown` is how
// the lines name the database.
std::vector<Text> Verify(CSession& session, const std::string& shown);

}  // namespace pysource::standalone::sqlitedb
