#include "tools/scopeinfo/output.h"

#include <fmt/format.h>

#include <algorithm>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <utility>

#include "pysource/host/errors.h"
#include "pysource/host/strutils.h"

namespace pysource::tools {
namespace {

[[noreturn]] void FailToWrite() {
  throw CValueError(fmt::format("cannot write the output: {}", std::strerror(errno)));
}

// Columns that the text takes on a terminal, as if every code point took one.
size_t WidthOf(std::string_view text) {
  return static_cast<size_t>(std::count_if(text.begin(), text.end(), [](char c) {
    return (static_cast<unsigned char>(c) & 0xC0U) != 0x80U;
  }));
}

}  // namespace

void Write(std::string_view text) {
  if (std::fwrite(text.data(), 1, text.size(), stdout) != text.size()) {
    FailToWrite();
  }
}

void FlushOutput() {
  if (std::fflush(stdout) != 0) {
    FailToWrite();
  }
}

void Complain(std::string_view text) {
  std::fflush(stdout);  // so that both come in order where they go to one place
  while (!text.empty()) {
    const size_t end = std::min(text.find('\n'), text.size());
    fmt::print(stderr, "scopeinfo: {}\n", Printable(text.substr(0, end)));
    text.remove_prefix(std::min(end + 1, text.size()));
  }
}

void WriteJson(const nlohmann::ordered_json& json) {
  Write(json.dump(2, ' ', false, nlohmann::ordered_json::error_handler_t::replace));
  Write("\n");
}

std::string Printable(TextView text) {
  std::string printable;
  const bool is_utf8 = IsUtf8(text);
  for (const char c : text) {
    const auto byte = static_cast<unsigned char>(c);
    if (byte < 0x20 || byte == 0x7F || (byte >= 0x80 && !is_utf8)) {
      printable += fmt::format("\\x{:02x}", byte);
    } else {
      printable += c;
    }
  }
  return printable;
}

std::string NoteLine(const std::string& path, const std::string& text) {
  return text.find(path) != std::string::npos ? text : path + ": " + text;
}

std::string Grouped(size_t number) {
  std::string digits = std::to_string(number);
  for (size_t i = digits.size(); i > 3; i -= 3) {
    digits.insert(i - 3, ",");
  }
  return digits;
}

std::string Counted(size_t number, std::string_view what) {
  return fmt::format("{} {}{}", Grouped(number), what, number == 1 ? "" : "s");
}

std::string ByteSize(size_t bytes) {
  if (bytes < 1000) {
    return fmt::format("{} bytes", bytes);
  }
  const double size = static_cast<double>(bytes);
  return bytes < 1000000 ? fmt::format("{:.1f} kB", size / 1e3)
                         : fmt::format("{:.1f} MB", size / 1e6);
}

CTable::CTable(std::vector<std::string> headings) {
  for (std::string& heading : headings) {
    const bool right = heading.starts_with('>');
    _fRight.push_back(right);
    if (right) {
      heading.erase(0, 1);
    }
  }
  _fRows.push_back(std::move(headings));
}

void CTable::AddRow(std::vector<std::string> cells) { _fRows.push_back(std::move(cells)); }

std::string CTable::ToString(std::string_view indent) const {
  std::vector<size_t> widths(_fRight.size());
  for (const auto& row : _fRows) {
    for (size_t i = 0; i < row.size(); ++i) {
      widths[i] = std::max(widths[i], WidthOf(row[i]));
    }
  }
  std::string text;
  for (const auto& row : _fRows) {
    std::string line(indent);
    for (size_t i = 0; i < row.size(); ++i) {
      const std::string padding(widths[i] - WidthOf(row[i]), ' ');
      line += _fRight[i] ? padding + row[i] : row[i] + padding;
      line += "  ";
    }
    line.erase(line.find_last_not_of(' ') + 1);
    text += line + '\n';
  }
  return text;
}

nlohmann::ordered_json ToJson(const CMemoryUse& owner) {
  nlohmann::ordered_json json = {{"bytes", owner.Total()}};
  for (const CMemoryUse& part : owner.parts) {
    json[part.name] = ToJson(part);
  }
  return json;
}

}  // namespace pysource::tools
