#include "pysource/standalone/scanner/linejudge.h"

#include <algorithm>

namespace pysource::standalone {
namespace {

// Weights, in comparison with each other. What cannot be Python counts most; a block that is still
// to come, and an "else" whose "if" is gone, are likelier in code that is being written; what is
// merely not usual decides between what would be equal otherwise.
constexpr int kDamaged = 10;
constexpr int kOpenToTheEnd = 15;
constexpr int kLacking = 10;
constexpr int kProse = 10;
constexpr int kOutOfPlace = 10;
constexpr int kIncomplete = 5;
constexpr int kUnusualRow = 4;
constexpr int kHeaderRow = 8;
constexpr int kCodeInString = 2;

int WeightOf(Misplaced misplaced) {
  switch (misplaced) {
    case Misplaced::kNot:
      return 0;
    case Misplaced::kTooDeep:
    case Misplaced::kBetweenLevels:
      return kOutOfPlace;
    case Misplaced::kNoBlock:
    case Misplaced::kNoOpener:
    case Misplaced::kNoHandler:
      return kIncomplete;
  }
  return 0;
}

// A physical line that begins within the brackets of a logical one of that indentation.
int BadnessInBrackets(BytesView row, uint32_t indent) {
  const size_t first = row.find_first_not_of(" \t");
  if (first == BytesView::npos || row[first] == '\r' || row[first] == '#') {
    return 0;
  }
  const FirstWord word = FirstWordOf(row.substr(first));
  const BytesView text = row.substr(0, row.find_last_not_of(" \t\r") + 1);
  const bool is_header = (word == FirstWord::kIf || word == FirstWord::kFor ||
                          word == FirstWord::kElse || word == FirstWord::kAsync) &&
                         text.ends_with(':');
  const bool is_outside =
      first <= indent && BytesView(")]}\"'").find(row[first]) == BytesView::npos;
  return (is_header ? kHeaderRow : 0) + (is_outside ? kUnusualRow : 0);
}

// One that begins within a string.
int BadnessInString(BytesView row) {
  const size_t first = row.find_first_not_of(" \t");
  return first != BytesView::npos && OnlyBeginsStatements(FirstWordOf(row.substr(first)))
             ? kCodeInString
             : 0;
}

// What the physical lines of a logical one look like, but for the first.
int BadnessOfRows(BytesView source, const CLogicalLine& line, const std::vector<CTextSpan>& spans) {
  int badness = 0;
  size_t next_span = 0;
  for (size_t at = source.find('\n', line.begin); at < line.text_end;) {
    while (next_span < spans.size() && spans[next_span].end != 0 && spans[next_span].end <= at) {
      ++next_span;
    }
    const bool in_string = next_span < spans.size() && spans[next_span].begin <= at;
    const size_t end = std::min(source.find('\n', at + 1), source.size());
    const BytesView row = source.substr(at + 1, end - at - 1);
    badness += in_string ? BadnessInString(row) : BadnessInBrackets(row, line.indent);
    at = end;
  }
  return badness;
}

}  // namespace

bool HasLongString(BytesView source, const std::vector<CTextSpan>& spans) {
  return std::any_of(spans.begin(), spans.end(), [&](const CTextSpan& span) {
    return !span.is_comment &&
           (span.end == 0 ||
            source.substr(span.begin, span.end - span.begin).find('\n') != BytesView::npos);
  });
}

int Badness(BytesView text, CBlockStructure before, int limit) {
  int badness = 0;
  CLogicalLines lines(text);
  std::vector<CTextSpan> spans;
  lines.NoteSpans(&spans);
  for (CLogicalLine line; badness <= limit && lines.Next(line);) {
    badness += line.open_brackets != 0 ? kDamaged : 0;
    badness += kDamaged * static_cast<int>(std::min(line.stray_brackets + line.open_strings, 100U));
    if (line.open_strings != 0 && line.end == text.size()) {
      badness += kOpenToTheEnd;
    }
    const CLineCheck check = CheckLine(text, line, spans);
    badness += check.IsWhole() ? 0 : kLacking;
    badness += check.is_prose ? kProse : 0;
    badness += WeightOf(before.Add(line));
    badness += BadnessOfRows(text, line, spans);
  }
  return badness;
}

}  // namespace pysource::standalone
