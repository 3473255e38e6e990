#include "pysource/standalone/scanner/mendings.h"

#include <algorithm>

#include "pysource/standalone/scanner/linecompletion.h"

namespace pysource::standalone {
namespace {

// Of a long line that many physical lines belong to, so many are tried at each end, in front of a
// bracket that fits nothing, and around each that stays open.
constexpr size_t kMaxRowsAtEnd = 30;
constexpr size_t kMaxRowsBefore = 30;
constexpr size_t kMaxRowsAround = 2;

// Of what one physical line leaves open, so many are closed one by one.
constexpr size_t kMaxOwnClosers = 4;

// That a long string lost its first quotes, in the measure of linejudge.h.
constexpr int kCostOfQuotes = 3;

// A mending that dedents more lines than this is of no use to anybody.
constexpr size_t kMaxDedented = 5000;

bool IsSpace(char c) { return c == ' ' || c == '\t' || c == '\f' || c == '\r'; }

bool IsBlank(BytesView row) { return std::all_of(row.begin(), row.end(), IsSpace); }

// What the opened brackets of `outer` and more are closed with ends in what `outer` is closed with.
size_t OwnClosers(const Bytes& closers, const Bytes& outer) {
  return closers.size() > outer.size() && closers.ends_with(outer) ? closers.size() - outer.size()
                                                                   : 0;
}

Bytes ClosersOf(BytesView text) {
  CLogicalLines lines(text);
  CLogicalLine line;
  return lines.Next(line) ? lines.Closers() : Bytes();
}

}  // namespace

void CMendings::Add(size_t at, size_t erased, BytesView inserted, int cost) {
  _fAll.push_back({{CTextEdit{at, erased, Bytes(inserted)}}, cost});
}

std::vector<CMendings::CRow> CMendings::RowsToTry(const CLogicalLine& line) const {
  std::vector<CRow> rows;
  for (size_t at = line.begin; at < line.text_end;) {
    const size_t end = std::min(_fSource.find('\n', at), _fSource.size());
    rows.push_back(CRow{at, end});
    at = end + 1;
  }
  if (rows.size() > 2 * kMaxRowsAtEnd) {
    CLogicalLines lines(_fSource.substr(0, line.end), line.begin);
    CLogicalLine again;
    lines.Next(again);
    std::vector<uint32_t> open = lines.OpenBrackets();
    const auto is_near = [&](const CRow& row, size_t at, size_t before, size_t after) {
      const auto index = [&](size_t place) {
        return static_cast<size_t>(
            std::upper_bound(rows.begin(), rows.end(), place,
                             [](size_t p, const CRow& r) { return p < r.begin; }) -
            rows.begin());
      };
      const size_t row_index = index(row.begin);
      const size_t at_index = index(at);
      return row_index + before >= at_index && row_index <= at_index + after;
    };
    std::vector<CRow> chosen;
    for (size_t i = 0; i < rows.size(); ++i) {
      const CRow& row = rows[i];
      if (i < kMaxRowsAtEnd || i + kMaxRowsAtEnd >= rows.size() ||
          (line.stray_brackets != 0 && is_near(row, line.stray_at, kMaxRowsBefore, 0)) ||
          std::any_of(open.begin(), open.end(), [&](uint32_t at) {
            return is_near(row, at, kMaxRowsAround, kMaxRowsAround);
          })) {
        chosen.push_back(row);
      }
    }
    rows.swap(chosen);
  }
  std::erase_if(rows, [&](const CRow& row) {
    return IsBlank(_fSource.substr(row.begin, row.end - row.begin));
  });
  return rows;
}

void CMendings::CloseIn(const CLogicalLine& line, int cost) {
  for (const CRow& row : RowsToTry(line)) {
    CloseRow(line, row, cost);
  }
}

void CMendings::CloseRow(const CLogicalLine& line, const CRow& row, int cost) {
  const BytesView text = _fSource.substr(line.begin, row.end - line.begin);
  const CCompletion completion = CompleteLine(text);
  // What the completion drops has to be within the row.
  const size_t keep = line.begin + completion.keep;
  if (keep >= row.begin && (keep < row.end || !completion.text.empty())) {
    Add(keep, row.end - keep, completion.text, cost);
  }
  const bool is_first = row.begin == line.begin;
  const Bytes outer =
      is_first ? Bytes() : ClosersOf(_fSource.substr(line.begin, row.begin - line.begin));
  if (outer.empty() && !is_first) {
    return;
  }
  const Bytes closers = ClosersOf(text);
  const size_t own_closers = std::min(OwnClosers(closers, outer), kMaxOwnClosers);
  const size_t filled = completion.text.find(closers);
  if (keep >= row.begin && filled != Bytes::npos) {
    for (size_t count = 1; count <= own_closers; ++count) {
      Add(keep, row.end - keep, completion.text.substr(0, filled + count), cost);
      Add(keep, row.end - keep, completion.text.substr(0, filled + count) + ",", cost);
    }
  }
  if (!is_first) {
    Add(keep, row.end - keep,
        completion.text.substr(0, std::min(filled, completion.text.size())) + ",", cost);
    // The row may be what nobody can read.
    Add(row.begin, row.end - row.begin, "", cost);
  }
}

void CMendings::OpenIn(const CLogicalLine& line) {
  for (const CRow& row : RowsToTry(line)) {
    const BytesView text = _fSource.substr(line.begin, row.end - line.begin);
    CLogicalLines lines(text);
    CLogicalLine part;
    if (!lines.Next(part) || part.open_strings != 0) {
      continue;
    }
    const size_t at = line.begin + part.text_end;
    if (at > row.begin) {
      // "for x" is given its "in" with the bracket.
      const Bytes before =
          line.first == FirstWord::kFor && text.find(" in ") == BytesView::npos ? " in _" : "";
      for (const char* const bracket : {"(", "[", "{"}) {
        Add(at, row.end - at, before + bracket);
      }
    }
  }
}

void CMendings::OpenStringIn(const CLogicalLine& line) {
  for (const CRow& row : RowsToTry(line)) {
    for (const char quote : {'"', '\''}) {
      // One or two of the quotes may have been left.
      size_t quotes = 0;
      while (row.end - quotes > row.begin && quotes < 3 &&
             _fSource[row.end - quotes - 1] == quote) {
        ++quotes;
      }
      if (quotes == 1 || quotes == 2) {
        Add(row.end, 0, Bytes(3 - quotes, quote), kCostOfQuotes);
      }
    }
  }
}

void CMendings::MakeHeader(const CLogicalLine& line) {
  const BytesView text = _fSource.substr(line.begin, line.text_end - line.begin);
  if (text.find('\n') != BytesView::npos) {
    return;
  }
  const BytesView word = text.substr(0, text.find_first_of(" \t(.[=:"));
  const bool is_fragment = word.size() == text.size();
  if (line.first == FirstWord::kMatch || line.first == FirstWord::kCase) {
    Add(line.text_end, 0, ":");
  }
  if (is_fragment && word.size() <= 3 && BytesView("def").starts_with(word)) {
    Add(line.begin, text.size(), "def _():");
  } else if (is_fragment && word.size() <= 5 && BytesView("class").starts_with(word)) {
    Add(line.begin, text.size(), "class _:");
  } else if (line.first == FirstWord::kOther && text.find('=') == BytesView::npos &&
             text.find(';') == BytesView::npos) {
    _fAll.push_back({{CTextEdit{line.begin, 0, "if "}, CTextEdit{line.text_end, 0, ":"}}});
  } else {
    Add(line.begin, text.size(), "if _:");
  }
}

void CMendings::Dedent(const CLogicalLine& first, uint32_t indent) {
  CMending mending;
  CLogicalLines lines(_fSource, first.begin, first.row);
  CLogicalLine line = first;
  // The cursor begins at the first token, which hides the columns in front of it.
  for (lines.Next(line), line.indent = first.indent;
       line.indent >= first.indent && mending.edits.size() < kMaxDedented;) {
    size_t begin = line.begin;
    while (begin != 0 && _fSource[begin - 1] != '\n') {
      --begin;
    }
    const uint32_t kept = line.indent - first.indent + indent;
    mending.edits.push_back(CTextEdit{begin, line.begin - begin, Bytes(kept, ' ')});
    if (!lines.Next(line)) {
      break;
    }
  }
  _fAll.push_back(std::move(mending));
}

void CMendings::MakeStatement(const CLogicalLine& clause) {
  const BytesView text = _fSource.substr(clause.begin, clause.text_end - clause.begin);
  const bool is_bare = text.find_first_of(" \t(") == BytesView::npos;
  switch (clause.first) {
    case FirstWord::kElif:
      Add(clause.begin, 2, "");
      break;
    case FirstWord::kExcept:
      Add(clause.begin, text.starts_with("except*") ? 7 : 6, is_bare ? "if _" : "with");
      break;
    case FirstWord::kElse:
      Add(clause.begin, 4, "if _");
      break;
    case FirstWord::kFinally:
      Add(clause.begin, 7, "if _");
      break;
    case FirstWord::kTry:
      Add(clause.begin, 3, "if _");
      break;
    default:
      break;
  }
}

void CMendings::DropBracket(const CLogicalLine& line) {
  const size_t at = line.stray_at;
  Add(at, 1, " ");
  const size_t row = _fSource.rfind('\n', at);
  if (row == BytesView::npos || row <= line.begin) {
    return;
  }
  // Its row goes, and the line ends in front of it.
  const size_t end = std::min(_fSource.find('\n', at), _fSource.size());
  const CCompletion completion = CompleteLine(_fSource.substr(line.begin, row - line.begin));
  _fAll.push_back({{CTextEdit{line.begin + completion.keep, row - line.begin - completion.keep,
                              completion.text},
                    CTextEdit{row + 1, end - row - 1, ""}}});
}

}  // namespace pysource::standalone
