// The table of scans: their names, which is the primary one, and in which order their results are
// handed to the cache. To add a scan, add a row and have the scanner make its records; whatever
// goes over the scans, or counts them, reads this table.
#pragma once

#include <algorithm>
#include <array>
#include <iterator>
#include <vector>

#include "pysource/host/text.h"

namespace pysource::standalone {

inline constexpr TextView kNamesScan = ":names";
inline constexpr TextView kAttrsScan = ":attrs";

struct CScanRow {
  TextView name;
  bool is_primary;  // exactly one is, and stands first
  // Results of a lower rank are handed over first. A record makes those stale that have seen its
  // scope, so in any other order a scan would make one stale that was handed over a moment before:
  // what rests on the names of a scope comes after these.
  int rank;
  // Whether it makes records for the very scope that it scans. Such a record of a secondary scan
  // changes the scope that it was made from. So it must not rest on that scope (its scopes seen do
  // not name it), or it would be stale as soon as it is there; and it is handed over before the
  // records of other scans, which do rest on the scope.
  bool for_scanned_scope;
  const char* words;  // for a person
};

inline constexpr CScanRow kScans[] = {
    {kNamesScan, true, 1, true, "names"},
    {kAttrsScan, false, 2, false, "attributes"},
};

inline constexpr const CScanRow& kPrimaryScan = kScans[0];

// The scans in the order in which their results are handed over.
inline constexpr auto kScansByRank = [] {
  std::array<const CScanRow*, std::size(kScans)> rows{};
  std::transform(std::begin(kScans), std::end(kScans), rows.begin(),
                 [](const CScanRow& row) { return &row; });
  std::sort(rows.begin(), rows.end(),
            [](const CScanRow* a, const CScanRow* b) { return a->rank < b->rank; });
  return rows;
}();

static_assert(std::all_of(std::begin(kScans), std::end(kScans),
                          [](const CScanRow& row) {
                            return row.is_primary == (&row == &kPrimaryScan) &&
                                   (row.is_primary || !row.for_scanned_scope ||
                                    row.rank < kPrimaryScan.rank);
                          }),
              "the first scan alone is primary, and a secondary scan that makes records for the "
              "scope that it scans is handed over before it");

// As CInfoCache::SetScanNames takes them: the primary one first.
std::vector<Text> ScanNames();

// The scans-done text of a file that was wholly scanned: the names, sorted, joined with ",".
const Text& AllScansDone();

// The place of the scan in the table; behind the last for a name that is not in it.
size_t ScanIndex(TextView name);

}  // namespace pysource::standalone
