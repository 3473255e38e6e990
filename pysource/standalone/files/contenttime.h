// The disk time of a content.
//
// The module asks for one number a file, the same for as long as the file is the same. The obvious
// one, the time of modification, is not that: builds that can be repeated date every file to one
// second, copies and archives restore times, and a touch, a checkout or a copied tree gives new
// times to old contents. So the number is made from the content itself, by XXH3:
//
//   2^52 + 51 bits of the hash * 2 + 1
//
// It is finite, above all marker values, and exact as a double. Being odd and that large it is no
// value of single precision, so it is never taken for a marker where the module compares rounded
// times. Two contents that a file has one after the other get the same number once in 2^51 times.
//
// What a number stands for never has to be looked up: every process, every database and every copy
// of a tree comes to the same number, a kill can tear nothing apart, and a content that comes back
// gets back its number. The alternative, to number the contents of a file as they come and store
// which number stands for which, has to agree with other processes on each new number.
#pragma once

#include <cstdint>
#include <string>

#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"
#include "pysource/standalone/files/filestamp.h"

namespace pysource::standalone {

// Above this size a file is not read: its number is made from its stamp. Source of this size is
// refused anyway.
inline constexpr uint64_t kMaxContentBytes = uint64_t{64} << 20;

// The disk time of a file that holds these bytes.
DiskTime ContentTime(BytesView bytes) noexcept;

// One look at a file that is there.
struct CFileContent {
  DiskTime disk_time = 0;
  CFileStamp stamp;
  // Whether the stamp stands for this content from here on (filestamp.h).
  bool is_settled = false;
};

// Reads the file at `path`. The disk time is kFileDoesNotExistMtime when no plain file is there,
// and kFileUnknownOnDiskMtime when the system does not say. A file that cannot be read, or is too
// large, has a number made from its stamp: another one whenever something changes.
CFileContent ReadContent(const std::string& path);
// The same, for the time alone.
DiskTime GetFileDiskTime(const std::string& path);

}  // namespace pysource::standalone
