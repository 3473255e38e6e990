#include "tests/sqlitedb/dbworld.h"

#include <sqlite3.h>
#include <stdlib.h>

#include "pysource/host/repr.h"

namespace pysource::standalone {

CDbWorld::CDbWorld() {
  std::string folder = (std::filesystem::temp_directory_path() / "sqlitedb-XXXXXX").string();
  EXPECT_NE(mkdtemp(folder.data()), nullptr);
  fFolder = folder;
}

CDbWorld::~CDbWorld() {
  std::error_code ignored;
  std::filesystem::remove_all(fFolder, ignored);
}

void CDbWorld::Sql(const std::string& sql) {
  sqlite3* db = nullptr;
  ASSERT_EQ(sqlite3_open(DbPath().c_str(), &db), SQLITE_OK);
  EXPECT_EQ(sqlite3_exec(db, sql.c_str(), nullptr, nullptr, nullptr), SQLITE_OK)
      << sql << ": " << sqlite3_errmsg(db);
  sqlite3_close(db);
}

CDatabaseRecord MakeRecord(Loc loc, const Text& scope, std::optional<Text> scan, Bytes data,
                           DiskTime disk_mtime) {
  CDatabaseRecord record;
  record.for_loc = loc;
  record.for_scope = scope;
  record.scan_name = std::move(scan);
  record.scanned_loc = loc;
  record.scanned_scope = scope;
  record.scopes_seen = std::make_shared<CScopesSeenDict>();
  record.scopes_seen->Set(CScopeRef{loc, "*"}, disk_mtime);
  record.data = std::move(data);
  return record;
}

std::vector<Text> Lines(const std::vector<CDatabaseRecord>& records) {
  std::vector<Text> lines;
  lines.reserve(records.size());
  for (const CDatabaseRecord& r : records) {
    lines.push_back(
        FormatPercent("%r %r %r %r %r seen %r classes %r imports %r data %r %d",
                      {r.for_loc, r.for_scope, r.scan_name, r.scanned_loc, r.scanned_scope,
                       r.scopes_seen, r.class_equivs, r.import_equivs, r.data, r.reserved}));
  }
  return lines;
}

std::vector<Text> AllOf(CAnalysisDb& db, Loc loc, DiskTime disk_mtime) {
  return Lines(db.ReadScopeDataRecords(loc, kBothScans, kAllScopes, disk_mtime));
}

}  // namespace pysource::standalone
