// What the program writes, and how: tables and JSON on the standard output, what goes wrong on the
// standard error.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <string_view>
#include <vector>

#include "pysource/host/memoryuse.h"
#include "pysource/host/text.h"

namespace pysource::tools {

// Writes to the standard output. Throws CValueError when that fails (a full disk).
void Write(std::string_view text);
// Sees to it that all was written; throws as above.
void FlushOutput();
// "scopeinfo: " and the text, a line each, on the standard error.
void Complain(std::string_view text);

// Indented, with a newline at the end. Bytes that are not UTF-8 are written as U+FFFD.
void WriteJson(const nlohmann::ordered_json& json);

// With control characters as \xNN, so that names cannot play tricks on a terminal.
std::string Printable(TextView text);
// "path: text", or the text alone where it names the path already.
std::string NoteLine(const std::string& path, const std::string& text);
// 1234567 as "1,234,567".
std::string Grouped(size_t number);
// "1 file", "2 files".
std::string Counted(size_t number, std::string_view what);
// {"bytes": all of it, and for each part its name: the same}.
nlohmann::ordered_json ToJson(const CMemoryUse& owner);
// 1234567 bytes as "1.2 MB".
std::string ByteSize(size_t bytes);

// Columns under headings, each as wide as its widest cell. The last one may be any width.
class CTable {
 public:
  // A heading that starts with ">" makes a column of numbers, aligned to the right.
  explicit CTable(std::vector<std::string> headings);
  void AddRow(std::vector<std::string> cells);
  bool empty() const { return _fRows.size() == 1; }
  std::string ToString(std::string_view indent = "") const;

 private:
  std::vector<bool> _fRight;
  std::vector<std::vector<std::string>> _fRows;  // the headings first
};

}  // namespace pysource::tools
