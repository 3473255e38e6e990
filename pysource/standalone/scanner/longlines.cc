#include "pysource/standalone/scanner/longlines.h"

#include <algorithm>
#include <utility>

namespace pysource::standalone {
namespace {

// The parser takes up to 230 times the size of a list of digits, so this is some 120 MB.
constexpr uint32_t kMaxLine = uint32_t{1} << 19;
// Where brackets or strings do not match, the parser looks for the best of many readings, in more
// than proportion to the line.
constexpr uint32_t kMaxDamagedLine = uint32_t{1} << 13;
// How far back an operand or element is looked for that ends well.
constexpr uint32_t kMaxStepBack = 4096;

constexpr BytesView kSeparators = ",+-*/%|&^<>=. \t\r\n\\";

}  // namespace

std::optional<CLineCut> CutLongLine(BytesView source, const CLogicalLine& line) {
  const uint32_t most = line.IsDamaged() ? kMaxDamagedLine : kMaxLine;
  const uint32_t size = line.text_end - line.begin;
  if (size <= most && line.excess_at == 0) {
    return std::nullopt;
  }
  uint32_t end = line.begin + std::min(most, size);
  if (line.excess_at != 0) {
    end = std::min(end, line.excess_at);
  }
  if (constexpr BytesView kBrackets = "([{";
      end == source.size() || kBrackets.find(source[end]) == BytesView::npos) {
    // Behind the last operand or element: an operator with nothing behind it would be an error.
    const BytesView tail = source.substr(0, end);
    const size_t separator = tail.find_last_of(kSeparators);
    const size_t operand =
        separator == BytesView::npos ? separator : tail.find_last_not_of(kSeparators, separator);
    if (operand != BytesView::npos && operand + kMaxStepBack > end) {
      end = static_cast<uint32_t>(operand + 1);
    }
    while (end < source.size() && (source[end] & 0xC0) == 0x80) {
      --end;
    }
    // Behind these, the quote that closes a string would not.
    while (end > line.begin + 1 && BytesView("\\\"'").find(source[end - 1]) != BytesView::npos) {
      --end;
    }
  }
  CLogicalLines lines(source.substr(0, end), line.begin, line.row);
  CLogicalLine beginning;
  lines.Next(beginning);
  Bytes closing = lines.Closers();
  if (!closing.empty() && closing[0] != '"' && closing[0] != '\'') {
    closing.insert(0, 1, '\n');  // the beginning may end in a comment
  }
  return CLineCut{end, std::move(closing)};
}

}  // namespace pysource::standalone
