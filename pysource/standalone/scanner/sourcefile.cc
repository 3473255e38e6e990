#include "pysource/standalone/scanner/sourcefile.h"

#include <fcntl.h>
#include <iconv.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>

#include "pysource/host/errors.h"
#include "pysource/host/strutils.h"
#include "pysource/standalone/files/contenttime.h"
#include "pysource/standalone/scanner/encodings.h"

namespace pysource::standalone {
namespace {

constexpr TextView kByteOrderMark = "\xEF\xBB\xBF";

// A file that changes each time it is read is read so often before its last content is taken as it
// is.
constexpr int kMostReads = 4;

[[noreturn]] void Fail(TextView name, TextView why) {
  throw CValueError(Text(name) + ": " + Text(why));
}
[[noreturn]] void FailWithErrno(TextView name, TextView what) {
  Fail(name, Text(what) + " (" + std::strerror(errno) + ")");
}

class CFileDescriptor {
 public:
  explicit CFileDescriptor(const std::string& path)
      // Without O_NONBLOCK, opening a pipe would wait for a writer.
      : _fFd(open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK)) {}
  CFileDescriptor(const CFileDescriptor&) = delete;
  CFileDescriptor& operator=(const CFileDescriptor&) = delete;
  ~CFileDescriptor() {
    if (_fFd >= 0) {
      close(_fFd);
    }
  }
  int Get() const { return _fFd; }

 private:
  const int _fFd;
};

struct stat Status(int fd, const std::string& path) {
  struct stat status {};
  if (fstat(fd, &status) != 0) {
    FailWithErrno(path, "cannot be looked at");
  }
  if (S_ISDIR(status.st_mode)) {
    Fail(path, "is a folder, not a file");
  }
  if (!S_ISREG(status.st_mode)) {
    Fail(path, "is not a plain file");
  }
  return status;
}

Bytes ReadAll(int fd, const std::string& path, size_t expected_size, size_t max_bytes) {
  if (lseek(fd, 0, SEEK_SET) < 0) {
    FailWithErrno(path, "cannot be read from its start");
  }
  Bytes bytes;
  size_t size = 0;
  // One byte more than expected, so that the end is met without another round.
  bytes.resize(std::min(expected_size, max_bytes) + 1);
  while (true) {
    if (size == bytes.size()) {
      bytes.resize(size * 2);
    }
    const ssize_t count = read(fd, bytes.data() + size, bytes.size() - size);
    if (count < 0 && errno == EINTR) {
      continue;
    }
    if (count < 0) {
      FailWithErrno(path, "cannot be read");
    }
    if (count == 0) {
      break;
    }
    size += static_cast<size_t>(count);
    if (size > max_bytes) {
      Fail(path, "is larger than " + std::to_string(max_bytes) + " bytes, so it is left out");
    }
  }
  bytes.resize(size);
  return bytes;
}

// ---- Encodings.
//
// Python reads the name of the encoding from a comment in the first line, or in the second when the
// first is blank or a comment: #.*coding[:=][ \t]*([-_.a-zA-Z0-9]+)

constexpr bool IsEncodingChar(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
         c == '_' || c == '.';
}

std::optional<Text> DeclaredInLine(TextView line) {
  const size_t hash = line.find_first_not_of(" \t\f");
  if (hash == TextView::npos || line[hash] != '#') {
    return std::nullopt;
  }
  for (size_t at = line.find("coding", hash); at != TextView::npos;
       at = line.find("coding", at + 1)) {
    size_t begin = at + TextView("coding").size();
    if (begin == line.size() || (line[begin] != ':' && line[begin] != '=')) {
      continue;
    }
    begin = line.find_first_not_of(" \t", begin + 1);
    if (begin == TextView::npos) {
      continue;
    }
    size_t end = begin;
    while (end < line.size() && IsEncodingChar(line[end])) {
      ++end;
    }
    if (end != begin) {
      return Text(line.substr(begin, end - begin));
    }
  }
  return std::nullopt;
}

std::optional<Text> DeclaredEncoding(BytesView bytes) {
  for (int line_number = 0; line_number < 2; ++line_number) {
    const size_t end = bytes.find_first_of("\r\n");
    const TextView line = bytes.substr(0, end);
    if (auto encoding = DeclaredInLine(line)) {
      return encoding;
    }
    const size_t text = line.find_first_not_of(" \t\f");
    if (end == BytesView::npos || (text != TextView::npos && line[text] != '#')) {
      return std::nullopt;
    }
    const bool is_pair = bytes.substr(end).starts_with("\r\n");
    bytes.remove_prefix(end + (is_pair ? 2 : 1));
  }
  return std::nullopt;
}

class CConverter {
 public:
  explicit CConverter(const char* encoding) : _fHandle(iconv_open("UTF-8", encoding)) {}
  CConverter(const CConverter&) = delete;
  CConverter& operator=(const CConverter&) = delete;
  ~CConverter() {
    if (IsKnown()) {
      iconv_close(_fHandle);
    }
  }
  // iconv_open answers -1 as a pointer.
  bool IsKnown() const { return reinterpret_cast<intptr_t>(_fHandle) != -1; }

  // The text, or where it is broken.
  bool Convert(BytesView bytes, Text& out, size_t& broken_at) {
    // iconv takes its input through a pointer to mutable bytes and leaves them alone.
    char* from = const_cast<char*>(bytes.data());
    size_t left = bytes.size();
    std::array<char, 16384> block;
    while (left != 0) {
      char* to = block.data();
      size_t room = block.size();
      const size_t done = iconv(_fHandle, &from, &left, &to, &room);
      out.append(block.data(), block.size() - room);
      if (done == static_cast<size_t>(-1) && errno != E2BIG) {
        broken_at = bytes.size() - left;
        return false;
      }
    }
    return true;
  }

 private:
  const iconv_t _fHandle;
};

// What does not read as text to the C library and yet needs no table: bytes are code points.
Text FromLatin1(BytesView bytes) {
  Text result;
  result.reserve(bytes.size() + bytes.size() / 8);
  for (const char c : bytes) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x80) {
      result += c;
    } else {
      result += static_cast<char>(0xC0 | (byte >> 6));
      result += static_cast<char>(0x80 | (byte & 0x3F));
    }
  }
  return result;
}

bool IsUtf8Name(TextView encoding) {
  return encoding == "utf-8" || encoding == "utf8" || encoding.starts_with("utf-8-") ||
         encoding == "u8" || encoding == "utf" || encoding == "cp65001";
}

}  // namespace

Text DecodeSource(Bytes bytes, TextView name) {
  const bool has_mark = BytesView(bytes).starts_with(kByteOrderMark);
  if (has_mark) {
    bytes.erase(0, kByteOrderMark.size());
  }
  const std::optional<Text> declared = DeclaredEncoding(bytes);
  if (!declared) {
    return bytes;
  }
  const Text encoding = NormalEncodingName(*declared);
  if (IsUtf8Name(encoding)) {
    return bytes;
  }
  if (has_mark) {
    Fail(name, "begins with the mark of UTF-8 and declares the encoding " + *declared);
  }
  // Python refuses them as well: their text does not begin with the ASCII of a declaration.
  if (encoding.starts_with("utf-16") || encoding.starts_with("utf-32") ||
      encoding.starts_with("utf-7")) {
    Fail(name, "declares an encoding that source cannot be in: " + *declared);
  }
  const Text iconv_name = IconvName(encoding);
  if (iconv_name == "ISO-8859-1" || iconv_name == "iso-8859-1") {
    return FromLatin1(bytes);
  }
  CConverter converter(iconv_name.c_str());
  if (!converter.IsKnown()) {
    Fail(name, "declares an unknown encoding: " + *declared);
  }
  Text text;
  size_t broken_at = 0;
  if (!converter.Convert(bytes, text, broken_at)) {
    Fail(name, "is not text in the encoding that it declares, " + *declared + " (byte " +
                   std::to_string(broken_at) + ")");
  }
  return text;
}

CSourceFile ReadSourceFile(const std::string& path, size_t max_bytes) {
  max_bytes = std::min(max_bytes, kMostSourceBytes);
  const CFileDescriptor file(path);
  if (file.Get() < 0) {
    FailWithErrno(path, "cannot be opened");
  }
  CSourceFile result;
  Bytes bytes;
  for (int i = 0; i < kMostReads; ++i) {
    const int64_t read_at = FileClock();
    result.stamp = StampOf(Status(file.Get(), path));
    bytes = ReadAll(file.Get(), path, result.stamp.size, max_bytes);
    if (StampOf(Status(file.Get(), path)) == result.stamp) {
      result.is_settled = IsSettled(result.stamp, read_at);
      break;
    }
  }
  result.disk_mtime = ContentTime(bytes);
  result.source = DecodeSource(std::move(bytes), path);
  return result;
}

CSourceFile ReadSourceFile(Loc loc, size_t max_bytes) {
  const std::optional<std::string> path = PathForLocation(loc);
  if (!path) {
    Fail(loc.Repr(), "is not a file");
  }
  return ReadSourceFile(*path, max_bytes);
}

}  // namespace pysource::standalone
