#include "pysource/standalone/scanner/levels.h"

#include <algorithm>

#include "pysource/standalone/scanner/statements.h"

namespace pysource::standalone {
namespace {

// The grammar tells 256 columns apart. Python takes 100 blocks within each other, so that levels
// beyond this that differ by one column each still fit nearly always.
constexpr uint32_t kMaxKeptIndent = 160;
constexpr uint32_t kMaxShownIndent = 255;

constexpr bool IsBlank(char c) { return c == ' ' || c == '\t' || c == '\f' || c == '\r'; }

BytesView Blanks(uint32_t count) {
  static const Bytes blanks(kMaxShownIndent, ' ');
  return BytesView(blanks).substr(0, count);
}

// Whether the line can have brackets: most that go over several rows are strings by themselves.
bool CanHaveBrackets(BytesView source, const CLogicalLine& line) {
  const BytesView text = source.substr(line.begin, 3);
  const size_t quote = text.find_first_of("\"'");
  return quote == BytesView::npos ||
         text.substr(0, quote).find_first_not_of("rRbBuUfFtT") != BytesView::npos;
}

}  // namespace

uint32_t CLevels::ShownIndent(uint32_t indent) {
  while (!_fLevels.empty() && _fLevels.back().indent > indent) {
    _fLevels.pop_back();
  }
  if (_fLevels.empty() || _fLevels.back().indent < indent) {
    const uint32_t around = _fLevels.empty() ? kMaxKeptIndent : _fLevels.back().shown;
    _fLevels.push_back(
        {indent, indent <= kMaxKeptIndent ? indent : std::min(around + 1, kMaxShownIndent)});
  }
  return _fLevels.back().shown;
}

void CLevels::Serve(BytesView source, uint32_t begin, uint32_t end, const CLogicalLine& line,
                    CServedText& text) {
  const uint32_t shown = ShownIndent(line.indent);
  uint32_t row = line.row;  // of `begin`
  if (shown != line.indent) {
    text.Add(begin, LineBegin(source, line), row);
    text.AddForeign(Blanks(shown));
    begin = line.begin;
  }
  const BytesView head = source.substr(line.begin, line.text_end - line.begin);
  size_t line_end = shown == 0 ? BytesView::npos : head.find('\n');
  if (line_end != BytesView::npos && CanHaveBrackets(source, line)) {
    uint32_t rows = 0;
    for (; line_end != BytesView::npos; line_end = head.find('\n', line_end + 1)) {
      ++rows;
      const size_t first = head.find_first_not_of(" \t\f\r", line_end + 1);
      // Counted as the grammar does, a tab for 8 columns.
      uint32_t columns = 0;
      for (size_t i = line_end + 1; i < std::min(first, head.size()) && IsBlank(head[i]); ++i) {
        columns = head[i] == '\t' ? columns + 8 : head[i] == ' ' ? columns + 1 : 0;
      }
      if (first == BytesView::npos || head[first] == '\n' || columns >= shown) {
        continue;
      }
      const auto next = line.begin + static_cast<uint32_t>(line_end) + 1;
      text.Add(begin, next, row);
      text.AddForeign(Blanks(shown - columns));
      begin = next;
      row = line.row + rows;
    }
  }
  text.Add(begin, end, row);
}

}  // namespace pysource::standalone
