// WriteToDatabase after scans of many files, compared with plain SQLite inserting the same rows,
// both with one transaction for each file and into a new database.
//
// The project takes the rows from the cache, encodes the scopes seen and numbers the files; the
// peer's rows are prepared, ready to be bound. Adding the records to the cache is not counted.
#include <stdexcept>
#include <vector>

#include "bench/pairs/pair.h"
#include "bench/pairs/plainsql.h"
#include "bench/support/clock.h"

namespace pysource::bench {

void MeasureWrite(CBenchWorld& world, const CCorpus& corpus) {
  const auto fill = [&] {
    world.Open(world.fFolder.NewPath());
    AddCorpus(world.Cache(), corpus);
  };
  fill();
  world.Cache().WriteToDatabase();
  const std::vector<CPlainFile> plain_files = PlainFiles(world);
  size_t rows = 0;
  for (const CPlainFile& file : plain_files) {
    rows += file.rows.size();
  }

  const CPairTimes times = InTurn(
      [&] {
        fill();
        const double seconds = TimeOf([&] { world.Cache().WriteToDatabase(); });
        if (world.Db().Stats().records != rows) {
          throw std::logic_error("not every row was written");
        }
        return seconds;
      },
      [&] {
        CPlainDb plain(world.fFolder.NewPath());
        return TimeOf([&] {
          for (const CPlainFile& file : plain_files) {
            plain.Write(file);
          }
        });
      });
  PrintPair("write", times, rows, "ns",
            std::to_string(rows) + " rows of " + std::to_string(plain_files.size()) + " files");
}

}  // namespace pysource::bench
