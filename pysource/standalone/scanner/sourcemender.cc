#include "pysource/standalone/scanner/sourcemender.h"

#include <algorithm>
#include <optional>
#include <vector>

#include "pysource/standalone/scanner/blockstructure.h"
#include "pysource/standalone/scanner/linecheck.h"
#include "pysource/standalone/scanner/linejudge.h"
#include "pysource/standalone/scanner/logicallines.h"
#include "pysource/standalone/scanner/mendings.h"

namespace pysource::standalone {
namespace {

// So much of what follows a mending is looked at to judge it: a few screens, so that strings which
// begin where they should end show as prose.
constexpr size_t kLookAhead = 6000;
// A line that was given up may go on to the end of the file. So much of it is looked at.
constexpr size_t kMaxDamage = 60000;
// A long string that swallowed code is looked for so many lines above.
constexpr size_t kMaxLinesToString = 60;
// The lines before that are kept in mind.
constexpr size_t kMaxHistory = 4096;
// After so many mendings of one line it is left as it is.
constexpr size_t kMaxMendingsOfLine = 4;
// That another line is to blame than the one that shows it, in the measure of linejudge.h.
constexpr int kCostOfOtherLine = 2;
// What all mendings of a source may read: in bytes, as a multiple of its size, and at least.
constexpr size_t kEffortFactor = 12;
constexpr size_t kMinEffort = size_t{8} << 20;

// Whether any line of the source cannot be Python's.
bool IsDamaged(BytesView source) {
  CLogicalLines lines(source);
  std::vector<CTextSpan> spans;
  lines.NoteSpans(&spans);
  CBlockStructure structure;
  for (CLogicalLine line; lines.Next(line);) {
    if (line.IsDamaged() || structure.Add(line) != Misplaced::kNot ||
        LacksSomething(source, line, spans)) {
      return true;
    }
  }
  return false;
}

class CMender {
 public:
  CMender(BytesView source, Bytes& text) : _fText(text) {
    text.assign(source);
    _fEffort = std::max(kMinEffort, source.size() * kEffortFactor);
  }

  CMendedSource Run() {
    while (ReadOn()) {
    }
    _fResult.source = _fText;
    return _fResult;
  }

 private:
  struct CSeen {
    CLogicalLine line;
    bool has_long_string;
  };

  // Reads lines from _fAt on. True when one was mended and reading begins anew.
  bool ReadOn() {
    CLogicalLines lines(_fText, _fAt, _fRow);
    std::vector<CTextSpan> spans;
    lines.NoteSpans(&spans);
    CBlockStructure structure = StructureBefore(_fHistory.size());
    for (CLogicalLine line; lines.Next(line);) {
      const Misplaced misplaced = structure.Add(line);
      const CSeen seen{line, HasLongString(_fText, spans)};
      const bool is_damaged =
          line.IsDamaged() || misplaced != Misplaced::kNot || LacksSomething(_fText, line, spans);
      if (is_damaged || CheckLine(_fText, line, spans).is_prose) {
        if (Mend(seen, misplaced)) {
          return true;
        }
        if (is_damaged) {
          NoteDamage(line.row);
        }
      }
      Remember(seen);
    }
    return false;
  }

  // Neighbouring damage of one line counts once.
  void NoteDamage(uint32_t row) {
    if (_fResult.count == 0 || row != _fLastDamagedRow) {
      _fResult.first_row = _fResult.count == 0 ? row : std::min(_fResult.first_row, row);
      ++_fResult.count;
      _fLastDamagedRow = row;
    }
  }

  void Remember(const CSeen& seen) {
    if (_fHistory.size() == kMaxHistory) {
      const auto half = _fHistory.begin() + kMaxHistory / 2;
      for (auto i = _fHistory.begin(); i != half; ++i) {
        _fForgotten.Add(i->line);
      }
      _fHistory.erase(_fHistory.begin(), half);
    }
    _fHistory.push_back(seen);
  }

  CBlockStructure StructureBefore(size_t index) const {
    CBlockStructure structure = _fForgotten;
    for (size_t i = 0; i < index; ++i) {
      structure.Add(_fHistory[i].line);
    }
    return structure;
  }

  // The last line, not too far above, with a string that goes over line ends.
  const CLogicalLine* StringBefore() const {
    const size_t count = std::min(_fHistory.size(), kMaxLinesToString);
    for (size_t i = 1; i <= count; ++i) {
      if (_fHistory[_fHistory.size() - i].has_long_string) {
        return &_fHistory[_fHistory.size() - i].line;
      }
    }
    return nullptr;
  }

  // The last "try" of a block that ends in front of the line.
  const CLogicalLine* TryBefore(const CLogicalLine& line) const {
    uint32_t lowest = ~uint32_t{0};
    for (size_t i = _fHistory.size(); i-- != 0;) {
      const CLogicalLine& before = _fHistory[i].line;
      if (before.first == FirstWord::kTry && before.indent < lowest) {
        return before.indent >= line.indent ? &before : nullptr;
      }
      lowest = std::min(lowest, before.indent);
    }
    return nullptr;
  }

  bool IsProse(const CLogicalLine& line) const {
    CLogicalLines lines(BytesView(_fText).substr(0, line.end), line.begin, line.row);
    std::vector<CTextSpan> spans;
    lines.NoteSpans(&spans);
    CLogicalLine again;
    return lines.Next(again) && CheckLine(_fText, again, spans).is_prose;
  }

  bool Mend(const CSeen& seen, Misplaced misplaced) {
    const CLogicalLine& line = seen.line;
    if (line.row != _fMendedRow) {
      _fMendedRow = line.row;
      _fMendingsOfLine = 0;
    }
    if (++_fMendingsOfLine > kMaxMendingsOfLine || _fEffort == 0) {
      return false;
    }
    CMendings mendings(_fText);
    if (misplaced == Misplaced::kNoHandler) {
      if (const CLogicalLine* const opener = TryBefore(line)) {
        mendings.MakeStatement(*opener);
        Apply(mendings.All().front(), line);
        return true;
      }
    }
    const CLogicalLine* const before = _fHistory.empty() ? nullptr : &_fHistory.back().line;
    if (misplaced == Misplaced::kNoBlock && before != nullptr &&
        before->first != FirstWord::kMatch) {
      mendings.AddBlock(*before);
      Apply(mendings.All().front(), line);
      return true;
    }
    const CLogicalLine* const long_string = StringBefore();
    mendings.CloseIn(line);
    if (misplaced == Misplaced::kTooDeep && before != nullptr) {
      mendings.OpenIn(*before);
      mendings.MakeHeader(*before);
      mendings.Dedent(line, before->indent);
    }
    if (line.stray_brackets != 0) {
      if (before != nullptr) {
        mendings.OpenIn(*before);
      }
      mendings.OpenIn(line);
      mendings.DropBracket(line);
    } else if (misplaced == Misplaced::kNot) {
      mendings.OpenIn(line);
    }
    if (misplaced == Misplaced::kNoOpener) {
      mendings.MakeStatement(line);
    }
    // A string that ended where it should not, or never began, shows by the prose behind it.
    if (line.open_strings != 0 || IsProse(line)) {
      mendings.OpenStringIn(line);
      if (before != nullptr) {
        mendings.OpenStringIn(*before);
      }
      if (long_string != nullptr) {
        mendings.CloseIn(*long_string, kCostOfOtherLine);
      }
    }
    size_t begin = line.begin;
    for (const CLogicalLine* const other : {before, long_string}) {
      begin = other != nullptr ? std::min<size_t>(begin, other->begin) : begin;
    }
    return ApplyBest(mendings, begin, line);
  }

  // Judges all mendings by the source from `begin` on; false when none makes it better.
  bool ApplyBest(const CMendings& mendings, size_t begin, const CLogicalLine& line) {
    const size_t first = IndexOfLine(begin);
    const size_t window_begin =
        first < _fHistory.size() ? LineBegin(_fHistory[first].line.begin) : LineBegin(line.begin);
    const CBlockStructure structure = StructureBefore(first);
    const size_t damage_end = std::min<size_t>(line.end, line.begin + kMaxDamage);
    size_t end =
        std::min(_fText.size(), std::max(line.begin + kLookAhead, damage_end + kLookAhead / 2));
    end = std::min(_fText.find('\n', end), _fText.size());
    const BytesView window = BytesView(_fText).substr(window_begin, end - window_begin);
    // The first look counts too, or a large source would go on to be looked at when all is spent.
    if (_fEffort < window.size()) {
      _fEffort = 0;
      return false;
    }
    _fEffort -= window.size();
    int least = Badness(window, structure, 1 << 20);
    const CMending* best = nullptr;
    Bytes mended;
    for (const CMending& mending : mendings.All()) {
      if (_fEffort < window.size()) {
        break;
      }
      _fEffort -= window.size();
      MendInto(window, window_begin, mending, mended);
      const int badness = mending.cost + Badness(mended, structure, least - mending.cost);
      if (badness < least) {
        least = badness;
        best = &mending;
      }
    }
    if (best == nullptr) {
      return false;
    }
    Apply(*best, line);
    return true;
  }

  size_t LineBegin(size_t at) const {
    const size_t newline = at == 0 ? Bytes::npos : _fText.rfind('\n', at - 1);
    return newline == Bytes::npos ? 0 : newline + 1;
  }

  // The first remembered line that begins at the place or behind it.
  size_t IndexOfLine(size_t begin) const {
    const auto found =
        std::partition_point(_fHistory.begin(), _fHistory.end(),
                             [&](const CSeen& seen) { return seen.line.begin < begin; });
    return static_cast<size_t>(found - _fHistory.begin());
  }

  static void MendInto(BytesView window, size_t window_begin, const CMending& mending,
                       Bytes& mended) {
    mended.clear();
    size_t at = 0;
    for (const CTextEdit& edit : mending.edits) {
      const size_t place = std::min(edit.at - window_begin, window.size());
      mended += window.substr(at, place - at);
      mended += edit.inserted;
      at = std::min(place + edit.erased, window.size());
    }
    mended += window.substr(at);
  }

  // Changes the text, and goes back to the first line that is concerned.
  void Apply(const CMending& mending, const CLogicalLine& line) {
    _fEffort -= std::min(_fEffort, _fText.size() / 16);
    Bytes mended;
    MendInto(_fText, 0, mending, mended);
    const size_t first = mending.edits.front().at;
    size_t index = IndexOfLine(first + 1);
    if (index == _fHistory.size() && first >= line.begin) {
      _fAt = LineBegin(line.begin);
      _fRow = line.row;
    } else {
      index -= index != 0 ? 1 : 0;
      const CLogicalLine& from = index < _fHistory.size() ? _fHistory[index].line : line;
      _fAt = LineBegin(from.begin);
      _fRow = from.row;
      _fHistory.resize(index);
    }
    const auto begin = _fText.begin() + static_cast<ptrdiff_t>(_fAt);
    const auto place = _fText.begin() + static_cast<ptrdiff_t>(std::max(first, _fAt));
    NoteDamage(_fRow + static_cast<uint32_t>(std::count(begin, place, '\n')));
    _fText.swap(mended);
  }

  Bytes& _fText;
  CMendedSource _fResult;
  size_t _fEffort;  // what may still be read to judge mendings
  size_t _fAt = 0;  // where reading begins, outside of brackets
  uint32_t _fRow = 0;
  std::vector<CSeen> _fHistory;  // the lines in front of the one in hand
  CBlockStructure _fForgotten;   // what the lines before those tell
  uint32_t _fLastDamagedRow = 0;
  uint32_t _fMendedRow = 0;
  size_t _fMendingsOfLine = 0;
};

}  // namespace

CMendedSource MendSource(BytesView source, Bytes& copy) {
  if (!IsDamaged(source)) {
    return CMendedSource{source};
  }
  return CMender(source, copy).Run();
}

CMendedSource MendRejectedSource(BytesView source, Bytes& copy) {
  return CMender(source, copy).Run();
}

}  // namespace pysource::standalone
