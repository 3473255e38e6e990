#include "pysource/standalone/scanner/logicallines.h"

#include <algorithm>
#include <utility>

#include "pysource/host/words.h"

namespace pysource::standalone {
namespace {

// Where reading has to stop: in code, in the field of an f-string, in the text of strings.
enum Stop : uint8_t {
  kInCode = 1,
  kInField = 2,
  kInText = 4,
  kInFText = 8,
  kWordByte = 16,
};

constexpr std::array<uint8_t, 256> MakeStops() {
  std::array<uint8_t, 256> stops{};
  const auto add = [&](std::string_view bytes, int stop) {
    for (const char c : bytes) {
      auto& entry = stops[static_cast<unsigned char>(c)];
      entry = static_cast<uint8_t>(entry | stop);
    }
  };
  add("\n\r\\\"'", kInCode | kInField | kInText | kInFText);
  add("#()[]{}", kInCode | kInField);
  add(":", kInField);
  add("{}", kInFText);
  for (size_t c = 0; c < stops.size(); ++c) {
    if (c >= 0x80 || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
        c == '_') {
      stops[c] = static_cast<uint8_t>(stops[c] | kWordByte);
    }
  }
  return stops;
}

constexpr std::array<uint8_t, 256> kStops = MakeStops();

inline bool Is(char c, uint8_t stop) { return (kStops[static_cast<unsigned char>(c)] & stop) != 0; }

// The first place from `at` on where reading has to stop. Most runs are a few bytes long: a table
// and a loop that looks at four bytes a turn is faster than what works on whole vectors.
inline size_t FindStop(const char* data, size_t at, size_t size, uint8_t stop) {
  while (at + 4 <= size) {
    if (Is(data[at], stop)) {
      return at;
    }
    if (Is(data[at + 1], stop)) {
      return at + 1;
    }
    if (Is(data[at + 2], stop)) {
      return at + 2;
    }
    if (Is(data[at + 3], stop)) {
      return at + 3;
    }
    at += 4;
  }
  while (at < size && !Is(data[at], stop)) {
    ++at;
  }
  return at;
}

inline bool IsLineEnd(char c) { return c == '\n' || c == '\r'; }

size_t FindLineEnd(const char* data, size_t at, size_t size) {
  while (at < size && !IsLineEnd(data[at])) {
    ++at;
  }
  return at;
}

constexpr uint64_t Packed(std::string_view word) {
  uint64_t packed = 0;
  for (size_t i = word.size(); i-- != 0;) {
    packed = packed << 8 | static_cast<unsigned char>(word[i]);
  }
  return packed;
}

constexpr size_t kMaxWordSize = 8;

FirstWord WordOf(uint64_t packed) {
  switch (packed) {
    case Packed("assert"):
      return FirstWord::kAssert;
    case Packed("async"):
      return FirstWord::kAsync;
    case Packed("await"):
      return FirstWord::kAwait;
    case Packed("break"):
      return FirstWord::kBreak;
    case Packed("case"):
      return FirstWord::kCase;
    case Packed("class"):
      return FirstWord::kClass;
    case Packed("continue"):
      return FirstWord::kContinue;
    case Packed("def"):
      return FirstWord::kDef;
    case Packed("del"):
      return FirstWord::kDel;
    case Packed("elif"):
      return FirstWord::kElif;
    case Packed("else"):
      return FirstWord::kElse;
    case Packed("except"):
      return FirstWord::kExcept;
    case Packed("finally"):
      return FirstWord::kFinally;
    case Packed("for"):
      return FirstWord::kFor;
    case Packed("from"):
      return FirstWord::kFrom;
    case Packed("global"):
      return FirstWord::kGlobal;
    case Packed("if"):
      return FirstWord::kIf;
    case Packed("import"):
      return FirstWord::kImport;
    case Packed("lambda"):
      return FirstWord::kLambda;
    case Packed("match"):
      return FirstWord::kMatch;
    case Packed("nonlocal"):
      return FirstWord::kNonlocal;
    case Packed("not"):
      return FirstWord::kNot;
    case Packed("pass"):
      return FirstWord::kPass;
    case Packed("raise"):
      return FirstWord::kRaise;
    case Packed("return"):
      return FirstWord::kReturn;
    case Packed("try"):
      return FirstWord::kTry;
    case Packed("type"):
      return FirstWord::kType;
    case Packed("while"):
      return FirstWord::kWhile;
    case Packed("with"):
      return FirstWord::kWith;
    case Packed("yield"):
      return FirstWord::kYield;
    default:
      return FirstWord::kOther;
  }
}

}  // namespace

FirstWord FirstWordOf(BytesView text) {
  if (text.empty() || !Is(text[0], kWordByte)) {
    return text.starts_with('@') ? FirstWord::kDecorator : FirstWord::kOther;
  }
  size_t size = 1;
  while (size < text.size() && Is(text[size], kWordByte)) {
    if (++size > kMaxWordSize) {
      return FirstWord::kOther;
    }
  }
  return WordOf(size == kWordSize ? LoadWord(text.data()) : LoadShort(text.data(), size));
}

CLogicalLines::CLogicalLines(BytesView source, size_t begin, uint32_t row)
    : _fData(source.data()), _fSize(source.size()), _fAt(begin), _fRow(row) {
  if (begin == 0 && source.starts_with("\xEF\xBB\xBF")) {
    _fAt = 3;
  }
}

bool CLogicalLines::Next(CLogicalLine& line) {
  if (!FindFirstToken(line)) {
    return false;
  }
  _fTextEnd = _fAt;
  _fStrayBrackets = 0;
  _fOpenStrings = 0;
  _fMissingQuote.clear();
  _fExcessAt = 0;
  _fContinuations = 0;
  _fChain = 0;
  _fLambdas = 0;
  _fFrameCount = 0;
  _fFields = 0;
  _fOverflow = 0;
  if (_fSpans != nullptr) {
    _fSpans->clear();
  }
  line.begin = static_cast<uint32_t>(_fAt);
  line.row = _fRow;
  line.first = FirstWordOf(BytesView(_fData + _fAt, _fSize - _fAt));
  ReadLine();
  line.text_end = static_cast<uint32_t>(_fTextEnd);
  line.end = static_cast<uint32_t>(_fAt);
  line.open_brackets = Depth();
  line.stray_brackets = _fStrayBrackets;
  line.stray_at = static_cast<uint32_t>(_fStrayAt);
  line.open_strings = _fOpenStrings;
  line.excess_at = _fExcessAt;
  line.opens_block = Depth() == 0 && _fTextEnd != 0 && _fData[_fTextEnd - 1] == ':';
  return true;
}

Bytes CLogicalLines::Closers() const {
  Bytes closers;
  if (!_fMissingQuote.empty()) {
    // A backslash at the end would take the quote for itself.
    size_t slashes = 0;
    while (slashes < _fSize && _fData[_fSize - 1 - slashes] == '\\') {
      ++slashes;
    }
    closers.assign(slashes % 2, '\\');
    closers += _fMissingQuote;
  }
  for (uint32_t i = _fFrameCount; i-- != 0;) {
    closers += _fFrames[i].close;
    if (_fFrames[i].quote != 0) {
      closers.append(_fFrames[i].triple ? 3 : 1, _fFrames[i].quote);
    }
  }
  return closers;
}

std::vector<uint32_t> CLogicalLines::OpenBrackets() const {
  std::vector<uint32_t> brackets;
  for (uint32_t i = 0; i < _fFrameCount; ++i) {
    brackets.push_back(_fFrames[i].at);
  }
  return brackets;
}

void CLogicalLines::NoteSpan(size_t begin, bool is_comment) {
  if (_fSpans != nullptr) {
    _fSpans->push_back(
        CTextSpan{static_cast<uint32_t>(begin), static_cast<uint32_t>(_fAt), is_comment});
  }
}

// Over blank lines and comments to the first token of a line, with the columns in front of it.
bool CLogicalLines::FindFirstToken(CLogicalLine& line) {
  uint32_t indent = 0;
  uint32_t continued_indent = 0;
  while (_fAt < _fSize) {
    switch (_fData[_fAt]) {
      case ' ':
        ++indent;
        ++_fAt;
        break;
      case '\t':
        indent += 8 - indent % 8;
        ++_fAt;
        break;
      case '\f':
        indent = 0;
        ++_fAt;
        break;
      case '#':
        _fAt = FindLineEnd(_fData, _fAt, _fSize);
        break;
      case '\n':
      case '\r':
        Newline();
        indent = 0;
        continued_indent = 0;
        break;
      case '\\':
        // The columns of a continued line are those of its first part.
        if (Peek(1) == '\n' || Peek(1) == '\r') {
          continued_indent = continued_indent != 0 ? continued_indent : indent;
          indent = 0;
          ++_fAt;
          Newline();
          break;
        }
        [[fallthrough]];
      default:
        line.indent = continued_indent != 0 ? continued_indent : indent;
        return true;
    }
  }
  return false;
}

void CLogicalLines::ReadLine() {
  const size_t line_begin = _fAt;
  while (true) {
    const size_t run = _fAt;
    _fAt = FindStop(_fData, run, _fSize, InField() ? kInField : kInCode);
    const size_t hit = _fAt;
    const char c = _fAt < _fSize ? _fData[_fAt] : '\n';
    if (_fAt - line_begin > kLongLine) {
      NoteChains(line_begin, run);
    }
    if (IsLineEnd(c) || c == '#' || c == '\\') {
      NoteCode(run);
    } else {
      _fTextEnd = _fAt + 1;
    }
    if (_fAt == _fSize) {
      return;
    }
    switch (c) {
      case '\n':
      case '\r':
        Newline();
        if (Depth() == 0 || BeginsStatement()) {
          return;
        }
        break;
      case '#':
        _fAt = FindLineEnd(_fData, _fAt, _fSize);
        if (_fFields == 0) {
          NoteSpan(hit, true);
        }
        break;
      case '\\':
        Backslash();
        break;
      case '"':
      case '\'':
        BeginString(line_begin);
        break;
      case ':':
        BeginSpec();
        break;
      case '(':
        Open(')');
        break;
      case '[':
        Open(']');
        break;
      case '{':
        Open('}');
        break;
      default:
        Close(c);
        break;
    }
  }
}

// The code from `run` to here ends a line or a part of one: the last token ends before the white
// space.
void CLogicalLines::NoteCode(size_t run) {
  size_t end = _fAt;
  while (end > run &&
         (_fData[end - 1] == ' ' || _fData[end - 1] == '\t' || _fData[end - 1] == '\f')) {
    --end;
  }
  if (end > run) {
    _fTextEnd = end;
  }
}

void CLogicalLines::Newline() {
  _fAt += _fData[_fAt] == '\r' && Peek(1) == '\n' ? 2 : 1;
  ++_fRow;
}

// In code. What follows in the same line is no continuation but an error, and is read on.
void CLogicalLines::Backslash() {
  // Without a token in between, it continues the last one.
  _fContinuations =
      std::exchange(_fContinuedText, _fTextEnd) == _fTextEnd ? _fContinuations + 1 : 0;
  if (_fContinuations > kMaxContinuations && _fExcessAt == 0) {
    _fExcessAt = static_cast<uint32_t>(_fAt);
  }
  ++_fAt;
  if (IsLineEnd(Peek())) {
    Newline();
  }
}

// Whether a statement begins here without doubt, at the beginning of a physical line.
bool CLogicalLines::BeginsStatement() const {
  size_t at = _fAt;
  while (at < _fSize && (_fData[at] == ' ' || _fData[at] == '\t' || _fData[at] == '\f')) {
    ++at;
  }
  return OnlyBeginsStatements(FirstWordOf(BytesView(_fData + at, _fSize - at)));
}

void CLogicalLines::Open(char close) {
  ++_fAt;
  if (_fFrameCount == kMaxFrames || _fOverflow != 0) {
    ++_fOverflow;
  } else {
    _fFrames[_fFrameCount++] = CFrame{.close = close, .at = static_cast<uint32_t>(_fAt - 1)};
  }
  NoteDepth();
}

// Behind a bracket that opens.
void CLogicalLines::NoteDepth() {
  if (Depth() > kMaxNesting && _fExcessAt == 0) {
    _fExcessAt = static_cast<uint32_t>(_fAt - 1);
  }
}

// In the code from `run` to here: what a parser keeps on its stack until the end of the line.
void CLogicalLines::NoteChains(size_t line_begin, size_t run) {
  const BytesView code(_fData + run, _fAt - run);
  if (Depth() == 0) {
    _fChain += static_cast<uint32_t>(
        std::count_if(code.begin(), code.end(), [](char c) { return c == '=' || c == ':'; }));
  }
  constexpr BytesView kLambda = "lambda";
  for (size_t at = code.find(kLambda); at != BytesView::npos; at = code.find(kLambda, at + 1)) {
    ++_fLambdas;
  }
  if ((_fChain > kMaxChain || _fLambdas > kMaxNesting) && _fExcessAt == 0) {
    _fExcessAt = static_cast<uint32_t>(std::max(run, line_begin + kLongLine));
  }
}

// A closing bracket ends the innermost bracket of its kind, and what is open within that; but no
// plain bracket ends the field of a string.
void CLogicalLines::Close(char bracket) {
  ++_fAt;
  _fLambdas = 0;
  if (_fOverflow != 0) {
    --_fOverflow;
    return;
  }
  uint32_t found = _fFrameCount;
  while (found != 0 && _fFrames[found - 1].close != bracket && _fFrames[found - 1].quote == 0) {
    --found;
  }
  if (found == 0 || _fFrames[found - 1].close != bracket) {
    NoteStray(_fAt - 1);
    return;
  }
  if (found != _fFrameCount) {
    NoteStray(_fAt - 1);
  }
  _fFrameCount = found - 1;
  const CFrame closed = _fFrames[_fFrameCount];
  if (closed.quote != 0) {
    --_fFields;
    ReadFText(CString{closed.quote, closed.triple, closed.raw});
  }
}

void CLogicalLines::NoteStray(size_t at) {
  _fStrayAt = _fStrayBrackets != 0 ? _fStrayAt : at;
  ++_fStrayBrackets;
}

// At the quote; the prefix, if there is one, lies behind.
void CLogicalLines::BeginString(size_t line_begin) {
  size_t prefix = _fAt;
  bool raw = false;
  bool has_fields = false;
  while (prefix > line_begin && Is(_fData[prefix - 1], kWordByte) && _fAt - prefix < 3) {
    const char c = static_cast<char>(_fData[--prefix] | 0x20);
    raw = raw || c == 'r';
    has_fields = has_fields || c == 'f' || c == 't';
  }
  has_fields = has_fields && _fAt - prefix < 3;  // longer words are no prefixes
  if (_fFields == 0) {
    NoteSpan(_fAt, false);
  }
  const char quote = _fData[_fAt];
  const bool triple = Peek(1) == quote && Peek(2) == quote;
  _fAt += triple ? 3 : 1;
  if (has_fields) {
    ReadFText(CString{quote, triple, raw});
  } else {
    ReadText(CString{quote, triple, raw});
  }
}

// Whether the string ends here, at a quote like its own; then it is behind.
bool CLogicalLines::EndsString(const CString& string) {
  if (!string.triple) {
    ++_fAt;
    return true;
  }
  const bool ends = Peek(1) == string.quote && Peek(2) == string.quote;
  _fAt += ends ? 3 : 1;
  return ends;
}

// A line end within the text of a string; false when it ends the string, which has no end then.
bool CLogicalLines::NewlineInText(const CString& string) {
  if (!string.triple) {
    ++_fOpenStrings;
    return false;
  }
  Newline();
  return true;
}

// A string is over, or the source is.
void CLogicalLines::EndString(const CString& string) {
  _fTextEnd = _fAt;
  if (_fSpans != nullptr && _fFields == 0) {
    _fSpans->back().end = static_cast<uint32_t>(_fAt);
  }
  if (_fAt == _fSize && _fOpenStrings != 0) {
    _fMissingQuote.assign(string.triple ? 3 : 1, string.quote);
  }
}

void CLogicalLines::ReadText(const CString& string) {
  while (true) {
    _fAt = FindStop(_fData, _fAt, _fSize, kInText);
    if (_fAt == _fSize) {
      ++_fOpenStrings;
      break;
    }
    const char c = _fData[_fAt];
    if (c == string.quote) {
      if (EndsString(string)) {
        break;
      }
    } else if (IsLineEnd(c)) {
      if (!NewlineInText(string)) {
        break;
      }
    } else if (c == '\\' && _fAt + 1 < _fSize && IsLineEnd(_fData[_fAt + 1])) {
      ++_fAt;
      Newline();
    } else {
      _fAt = std::min(_fAt + (c == '\\' ? 2 : 1), _fSize);
    }
  }
  EndString(string);
}

// The text of a string with fields, and the text behind the ":" of a field: up to the next field or
// the end of the string.
void CLogicalLines::ReadFText(const CString& string) {
  const bool in_spec = InField() && _fFrames[_fFrameCount - 1].in_spec;
  while (true) {
    _fAt = FindStop(_fData, _fAt, _fSize, kInFText);
    if (_fAt == _fSize) {
      ++_fOpenStrings;
      break;
    }
    const char c = _fData[_fAt];
    if (c == string.quote) {
      if (EndsString(string)) {
        break;
      }
    } else if (IsLineEnd(c)) {
      if (!NewlineInText(string)) {
        break;
      }
    } else if (c == '{') {
      if (Peek(1) == '{' && !in_spec) {
        _fAt += 2;
      } else if (BeginField(string)) {
        return;
      }
    } else if (c == '}' && in_spec) {
      Close('}');
      return;
    } else if (c == '\\') {
      EscapeInFText(string);
    } else {
      ++_fAt;
    }
  }
  if (in_spec && _fAt == _fSize && _fOpenStrings != 0) {
    return;  // what the field lacks is what the string lacks
  }
  // The string is over, and with it the fields that it ends in.
  while (InField() && _fFrames[_fFrameCount - 1].in_spec) {
    --_fFrameCount;
    --_fFields;
    NoteStray(_fAt - 1);
  }
  EndString(string);
}

void CLogicalLines::EscapeInFText(const CString& string) {
  ++_fAt;
  const char c = Peek();
  if (IsLineEnd(c)) {
    Newline();
  } else if (c == 'N' && !string.raw && Peek(1) == '{') {
    _fAt += 2;  // the name of a character, not a field
  } else if (c != '{' && c != '}' && _fAt < _fSize) {
    ++_fAt;
  }
}

// False when fields lie too deep to be told apart; they are text then.
bool CLogicalLines::BeginField(const CString& string) {
  ++_fAt;
  if (_fFrameCount == kMaxFrames) {
    return false;
  }
  ++_fFields;
  _fFrames[_fFrameCount++] = CFrame{.close = '}',
                                    .at = static_cast<uint32_t>(_fAt - 1),
                                    .quote = string.quote,
                                    .triple = string.triple,
                                    .raw = string.raw};
  NoteDepth();
  return true;
}

// A ":" in the field of a string, outside of brackets of its own.
void CLogicalLines::BeginSpec() {
  ++_fAt;
  CFrame& field = _fFrames[_fFrameCount - 1];
  field.in_spec = true;
  ReadFText(CString{field.quote, field.triple, field.raw});
}

}  // namespace pysource::standalone
