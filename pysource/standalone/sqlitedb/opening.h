// Opening the database file, whatever lies in its place.
//
//   nothing, or an empty file               a new database is made
//   ours, of this schema version            opened; for reading only, if it cannot be written
//   ours, of another version or with tables set aside under a new name, a new database is made
//   that are not ours; damaged; not a
//   database at all
//   a folder or a device; a database of     CValueError, which names the file; nothing is touched
//   another program; a place that cannot
//   be written, with no database in it
#pragma once

#include <sys/types.h>

#include <memory>
#include <string>

#include "pysource/standalone/sqlitedb/connection.h"

namespace pysource::standalone::sqlitedb {

// Which file a path names: another one after it was replaced.
struct CFileIdentity {
  dev_t device = 0;
  ino_t inode = 0;
  friend bool operator==(const CFileIdentity&, const CFileIdentity&) = default;
};

// All zero when there is no file.
CFileIdentity IdentityOf(const std::string& path);

struct COpenDatabase {
  std::unique_ptr<CSqliteConnection> connection;
  CFileIdentity identity;
  std::string message;  // what was set aside; empty when nothing
  bool is_new = false;  // it was made by this call
};

// `path` must be absolute; `shown` is how messages name the file; `patience` limits the connection.
COpenDatabase OpenDatabase(const std::string& path, const std::string& shown, CPatience* patience);

// Makes the folder and those above it that are missing, for their owner alone; whether it is there.
bool MakePrivateFolders(const std::string& folder);

// Moves the file, and what belongs to it, to the first free name "<path>.set-aside-<n>"; gives that
// name. Throws CValueError if it cannot be moved. It must not be open in this process.
std::string SetAside(const std::string& path, const std::string& shown);

}  // namespace pysource::standalone::sqlitedb
