// What the database tests share: a folder of their own, short ways to make records, and one text
// form of what a database answers, so that failures can be read.
#pragma once

#include <gtest/gtest.h>

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/standalone/sqlitedb/sqliteanalysisdb.h"

namespace pysource::standalone {

inline const std::vector<Text> kBothScans{":names", ":attrs"};
inline const std::vector<Text> kAllScopes{"*"};

class CDbWorld : public testing::Test {
 protected:
  CDbWorld();
  ~CDbWorld() override;

  // A file of the workspace.
  Loc File(const std::string& name) { return fLocCache.GetLocationForPath(WorkspacePath(name)); }
  std::string WorkspacePath(const std::string& name = "") const {
    return (fFolder / "workspace" / name).string();
  }
  std::string DbPath() const { return (fFolder / "scopes.db").string(); }

  // Another process that has the database open.
  std::unique_ptr<CSqliteAnalysisDb> Open(int lock_wait_ms = 50) {
    return std::make_unique<CSqliteAnalysisDb>(
        CSqliteDbOptions{DbPath(), WorkspacePath(), lock_wait_ms}, fLocCache);
  }

  // Runs SQL on the database behind its back.
  void Sql(const std::string& sql);

  std::filesystem::path fFolder;
  CLocationCache fLocCache;
};

// A record of a scope scanned by itself, which has seen its own file at `disk_mtime`.
CDatabaseRecord MakeRecord(Loc loc, const Text& scope, std::optional<Text> scan, Bytes data,
                           DiskTime disk_mtime);

// One line a record, everything in it.
std::vector<Text> Lines(const std::vector<CDatabaseRecord>& records);
// All of the file at that time, by both scans.
std::vector<Text> AllOf(CAnalysisDb& db, Loc loc, DiskTime disk_mtime);

}  // namespace pysource::standalone
