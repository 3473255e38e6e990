// Python source from disk: its text as UTF-8, and the disk time of just that text, which is made
// from the bytes that were read (files/contenttime.h). Reading is repeated while the file changes.
//
// What Python itself accepts is accepted: a UTF-8 byte order mark, and a declaration of the
// encoding in one of the first two lines (# -*- coding: latin-1 -*-). Without either the text is
// taken as UTF-8 and handed on even where it is not: the scanner copes, and an editor's half-typed
// file is better known in part than not at all.
#pragma once

#include <string>

#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"
#include "pysource/standalone/files/filestamp.h"

namespace pysource::standalone {

// A file beyond this is refused unless its reader says otherwise. Nobody writes 16 MiB: what is that
// large is a table that a program has made.
inline constexpr size_t kDefaultMaxBytes = size_t{16} << 20;
// What the scanner counts in 32 bits, with room to spare.
inline constexpr size_t kMostSourceBytes = size_t{1} << 30;

struct CSourceFile {
  Text source;  // UTF-8, without a byte order mark
  DiskTime disk_mtime = 0;
  CFileStamp stamp;         // of the file when it was read
  bool is_settled = false;  // whether the stamp stands for this text from here on
};

// Reads and decodes the file. Throws CValueError, with a message that names the file, when it is
// not there, cannot be read, is a folder or no plain file, is larger than the scanner takes, or
// when its declared encoding is unknown or does not fit its bytes.
CSourceFile ReadSourceFile(const std::string& path, size_t max_bytes = kDefaultMaxBytes);
// The same for a "file://" location; other locations are a CValueError.
CSourceFile ReadSourceFile(Loc loc, size_t max_bytes = kDefaultMaxBytes);

// The decoding alone, for text that comes from elsewhere; `name` is what messages call it. Throws
// CValueError as above.
Text DecodeSource(Bytes bytes, TextView name);

}  // namespace pysource::standalone
