// Which scans of a file are done, as the database keeps it: with the version of the scanner that
// did them behind it (":names:attrs@3"), so that another one counts them as not done.
#pragma once

#include <string>

#include "pysource/host/text.h"

namespace pysource::standalone::sqlitedb {

inline constexpr char kScannerVersionMark = '@';

// The text to be stored. Version 0 is that of scans that no scanner of ours did: it leaves no mark.
inline Text MarkedScansDone(TextView scans_done, int version) {
  Text marked(scans_done);
  if (!marked.empty() && version != 0) {
    marked += kScannerVersionMark + std::to_string(version);
  }
  return marked;
}

// What the stored text says of the scans of that version: nothing, where another one did them.
inline Text ScansDoneBy(TextView stored, int version) {
  const Text mark = MarkedScansDone("x", version).substr(1);
  const bool is_of_it =
      stored.ends_with(mark) && stored.find(kScannerVersionMark) ==
                                    (mark.empty() ? TextView::npos : stored.size() - mark.size());
  return is_of_it ? Text(stored.substr(0, stored.size() - mark.size())) : Text();
}

}  // namespace pysource::standalone::sqlitedb
