// The first read of files of about 40 scopes from the database, compared with plain SQLite reading
// the same rows and with decoding them.
//
// The project reads the module and then every scope into an empty cache. So it also looks for the
// file, its stub and its scans, stores the rows in its indexes and merges each scope. The peer
// makes a key and a record from each row. Opening the database is not counted, and its pages are in
// the page cache of the system.
#include <stdexcept>
#include <vector>

#include "bench/pairs/pair.h"
#include "bench/pairs/plainsql.h"
#include "bench/support/clock.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::bench {

void MeasureFirstRead(CBenchWorld& world, const CCorpus& corpus) {
  const std::string db_path = world.fFolder.NewPath();
  const std::string plain_path = world.fFolder.NewPath();
  world.Open(db_path);
  AddCorpus(world.Cache(), corpus);
  world.Cache().WriteToDatabase();
  {
    CPlainDb plain(plain_path);
    for (const CPlainFile& file : PlainFiles(world)) {
      plain.Write(file);
    }
  }

  std::vector<const CCorpusFile*> files;
  size_t scopes = 0;
  for (const CCorpusFile& file : corpus.files) {
    if (file.scope_names.size() >= 34 && file.scope_names.size() <= 46) {
      files.push_back(&file);
      scopes += file.scope_names.size();
    }
  }
  if (files.empty()) {
    throw std::runtime_error("no file has about 40 scopes");
  }

  size_t found = 0;
  size_t rows = 0;
  const CPairTimes times = InTurn(
      [&] {
        world.Open(db_path);
        return TimeOf([&] {
          for (const CCorpusFile* const file : files) {
            for (const Text& name : file->scope_names) {
              found += world.Cache().GetScopeInfo(file->loc, name) != nullptr;
            }
          }
        });
      },
      [&] {
        CPlainDb plain(plain_path);
        scopeinfo::CScopeInfoSerializer serializer;
        std::vector<scopeinfo::CScopeInfoPtr> infos;
        rows = 0;
        return TimeOf([&] {
          for (const CCorpusFile* const file : files) {
            infos.clear();
            plain.Read(file->loc->fUrl, file->disk_mtime, [&](const CPlainDb::CRowView& row) {
              ++rows;
              infos.push_back(
                  serializer.ReadScopeInfo(scopeinfo::CScopeInfoKey(file->loc, row.scope, row.scan,
                                                                    file->loc, row.scanned_scope),
                                           file->disk_mtime, false, row.data));
            });
          }
        });
      });
  PrintPair("first-read", times, files.size(), "us",
            std::to_string(files.size()) + " files, " + std::to_string(scopes) + " scopes, " +
                std::to_string(rows) + " rows" + (found == 0 ? ", nothing found" : ""));
}

}  // namespace pysource::bench
