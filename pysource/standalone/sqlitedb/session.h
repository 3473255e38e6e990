// An open database: the connection, and what is known through it. All of that ends with it, since
// none holds of another file.
#pragma once

#include <memory>
#include <string>

#include "pysource/host/location.h"
#include "pysource/standalone/sqlitedb/changelog.h"
#include "pysource/standalone/sqlitedb/connection.h"
#include "pysource/standalone/sqlitedb/contenttable.h"
#include "pysource/standalone/sqlitedb/filenames.h"
#include "pysource/standalone/sqlitedb/filetable.h"
#include "pysource/standalone/sqlitedb/losttable.h"
#include "pysource/standalone/sqlitedb/opening.h"
#include "pysource/standalone/sqlitedb/recordtable.h"
#include "pysource/standalone/sqlitedb/scantable.h"

namespace pysource::standalone::sqlitedb {

struct CSession {
  // `shown` is how messages name the database; it, the names and the cache must outlive this.
  // Throws CSqliteFailure.
  CSession(COpenDatabase opened, const CFileNames& names, CLocationCache& loc_cache,
           const std::string& shown)
      : connection(std::move(opened.connection)),
        identity(opened.identity),
        files(*connection, changes, names, loc_cache),
        scans(*connection),
        changes(*connection),
        lost(*connection, changes),
        contents(*connection),
        records(*connection, files, scans, shown) {}

  // A transaction has ended: what it entered into the tables stays, or goes with it.
  void Keep() {
    files.Keep();
    scans.Keep();
    changes.Keep();
  }
  void Undo() {
    files.Undo();
    scans.Undo();
    changes.Undo();
    records.Undo();
  }
  // What was kept is undone after all, and the log may get other entries under the same numbers.
  void Forget() {
    files.Forget();
    scans.Forget();
    changes.ForgetOwn();
    changes.LoseTrack();
  }

  const std::unique_ptr<CSqliteConnection> connection;
  const CFileIdentity identity;  // of the file that is open
  CFileTable files;
  CScanTable scans;
  CChangeLog changes;
  CLostTable lost;
  CContentTable contents;
  CRecordTable records;
};

}  // namespace pysource::standalone::sqlitedb
