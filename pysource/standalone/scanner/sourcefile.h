// Python source from disk: its text as UTF-8, and the disk time that goes with just that text.
//
// The time is taken from the opened file, before and after it is read, and the reading is repeated
// when they differ, so that a record is never stored under the time of another content.
//
// What Python itself accepts is accepted: a UTF-8 byte order mark, and a declaration of the
// encoding in one of the first two lines (# -*- coding: latin-1 -*-). Without either the text is
// taken as UTF-8 and handed on even where it is not: the scanner copes, and an editor's half-typed
// file is better known in part than not at all.
#pragma once

#include <sys/stat.h>

#include <string>

#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"

namespace pysource::standalone {

// The disk time of a file's state, from its time of modification; the one place where that is
// worked out, since times are compared for equality. A file dated to the first second of 1970 or
// before (as some builds date all files) gets the least time above the markers.
DiskTime DiskTimeOf(const struct stat& status) noexcept;
// The disk time of the file at `path` now: kFileDoesNotExistMtime when nothing is there,
// kFileUnknownOnDiskMtime when its time cannot be got.
DiskTime GetFileDiskTime(const std::string& path) noexcept;

struct CSourceFile {
  Text source;  // UTF-8, without a byte order mark
  DiskTime disk_mtime = 0;
};

// Reads and decodes the file. Throws CValueError, with a message that names the file, when it is
// not there, cannot be read, is a folder or no plain file, is larger than the scanner takes, or
// when its declared encoding is unknown or does not fit its bytes.
CSourceFile ReadSourceFile(const std::string& path);
// The same for a "file://" location; other locations are a CValueError.
CSourceFile ReadSourceFile(Loc loc);

// The decoding alone, for text that comes from elsewhere; `name` is what messages call it. Throws
// CValueError as above.
Text DecodeSource(Bytes bytes, TextView name);

// Source beyond this is refused when read: the parser counts bytes in 32 bits, and takes some
// twenty times the size of its input in memory.
inline constexpr size_t kMostSourceBytes = size_t{64} << 20;

}  // namespace pysource::standalone
