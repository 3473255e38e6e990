#include "pysource/standalone/scanner/sourceguard.h"

#include <algorithm>
#include <array>
#include <vector>

#include "pysource/host/strutils.h"

namespace pysource::standalone {
namespace {

// Below this size there are too few tokens for any harm, so nearly all files are spared the pass.
constexpr size_t kHarmlessSize = 8192;

// At each comment the parser looks ahead over all that follow it, for the next line's indentation:
// without a bound its time grows with the square of their number. Blanking one loses nothing.
constexpr size_t kMostCommentsInARow = 50;

// Words that no statement ends with: what follows in the next line still belongs to it.
constexpr std::array<BytesView, 22> kUnfinishedWords{
    "and",  "as",     "assert",   "async", "await",  "class", "def",    "del",
    "elif", "else",   "for",      "from",  "global", "if",    "import", "in",
    "is",   "lambda", "nonlocal", "not",   "or",     "with"};

// Words that open a block, when a line begins with them and ends with ":".
constexpr std::array<BytesView, 14> kHeaderWords{"async", "case",   "class",   "def", "elif",
                                                 "else",  "except", "finally", "for", "if",
                                                 "match", "try",    "while",   "with"};

enum class Class : uint8_t {
  kSpace,
  kNewline,
  kWord,
  kOpen,
  kClose,
  kComma,
  kHash,
  kQuote,
  kBackslash,
  kDot,
  kOperator,
};

constexpr std::array<Class, 256> MakeClasses() {
  std::array<Class, 256> classes{};
  classes.fill(Class::kOperator);
  for (const char c : {' ', '\t', '\f', '\r', '\v'}) {
    classes[static_cast<unsigned char>(c)] = Class::kSpace;
  }
  for (int c = 0; c < 256; ++c) {
    if ((c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '_' ||
        c >= 0x80) {
      classes[static_cast<size_t>(c)] = Class::kWord;
    }
  }
  for (const char c : {'(', '[', '{'}) {
    classes[static_cast<unsigned char>(c)] = Class::kOpen;
  }
  for (const char c : {')', ']', '}'}) {
    classes[static_cast<unsigned char>(c)] = Class::kClose;
  }
  classes['\n'] = Class::kNewline;
  classes[','] = Class::kComma;
  classes['#'] = Class::kHash;
  classes['"'] = Class::kQuote;
  classes['\''] = Class::kQuote;
  classes['\\'] = Class::kBackslash;
  classes['.'] = Class::kDot;
  return classes;
}

constexpr std::array<Class, 256> kClasses = MakeClasses();

// Well-formed UTF-8 without NUL and lone carriage returns.
void MendText(Bytes& text) {
  for (size_t i = 0; i < text.size(); ++i) {
    if (text[i] == '\0') {
      text[i] = '?';
    } else if (text[i] == '\r' && (i + 1 == text.size() || text[i + 1] != '\n')) {
      text[i] = '\n';
    }
  }
  if (IsUtf8(text)) {
    return;
  }
  for (size_t i = 0; i < text.size();) {
    const auto lead = static_cast<unsigned char>(text[i]);
    const size_t length = lead < 0x80 ? 1 : lead >= 0xF0 ? 4 : lead >= 0xE0 ? 3 : 2;
    if (lead < 0x80 || IsUtf8(BytesView(text).substr(i, length))) {
      i += length;
    } else {
      text[i++] = '?';
    }
  }
}

bool NeedsMending(BytesView source) {
  if (source.find('\0') != BytesView::npos) {
    return true;
  }
  for (size_t at = source.find('\r'); at != BytesView::npos; at = source.find('\r', at + 1)) {
    if (at + 1 == source.size() || source[at + 1] != '\n') {
      return true;
    }
  }
  return !IsUtf8(source);
}

// The one pass over the tokens. It knows just enough of Python's lexical rules to tell brackets
// from text: strings, strings with expressions in them, comments and logical lines.
class CNestingGuard {
 public:
  CNestingGuard(BytesView source, Bytes& copy, CGuardedSource& result)
      : _fSource(source), _fCopy(copy), _fResult(result) {}

  void Run() {
    while (_fAt < _fSource.size()) {
      Step();
    }
  }

 private:
  struct CFrame {
    size_t pending = 0;  // tokens since the last comma, and those that a comma does not end
    size_t kept = 0;     // the latter alone
    char quote = 0;      // of the string that an expression stands in; 0 for a plain bracket
    bool triple = false;
  };

  struct CBlock {
    size_t indent;
    size_t tokens;  // of its header
  };

  // What the line so far ends with.
  enum class Last : uint8_t { kNothing, kWhole, kUnfinished, kColon };

  CFrame& Top() { return _fFrames[_fDepth]; }

  void Step() {
    const size_t begin = _fAt;
    if (_fLast == Last::kNothing) {
      BeginLine();
    }
    const char c = _fSource[begin];
    switch (kClasses[static_cast<unsigned char>(c)]) {
      case Class::kSpace:
        ++_fAt;
        return;
      case Class::kNewline:
        ++_fAt;
        if (_fDepth == 0) {
          EndLine();
        }
        return;
      case Class::kHash:
        SkipComment();
        return;
      case Class::kBackslash:
        // A continued line is a token of its own to the parser, kept like a comment.
        _fAt += _fAt + 1 < _fSource.size() && _fSource[_fAt + 1] == '\n' ? 2 : 1;
        CountExtra(begin, begin + 1);
        return;
      case Class::kOpen:
        ++_fAt;
        Token(Last::kWhole);
        Open(begin);
        return;
      case Class::kClose:
        ++_fAt;
        Token(Last::kWhole);
        Close(begin);
        return;
      case Class::kComma:
        ++_fAt;
        Token(Last::kWhole);
        if (_fDepth != 0) {
          Settle(Top(), true);
        }
        return;
      case Class::kDot:
        ++_fAt;
        return;
      case Class::kQuote:
        BeginString(begin);
        return;
      case Class::kOperator:
        ++_fAt;
        if (Count(begin)) {
          Token(c == ':' ? Last::kColon : Last::kUnfinished);
        }
        return;
      case Class::kWord:
        while (_fAt < _fSource.size() &&
               kClasses[static_cast<unsigned char>(_fSource[_fAt])] == Class::kWord) {
          ++_fAt;
        }
        if (_fAt < _fSource.size() && _fAt - begin <= 2 &&
            (_fSource[_fAt] == '"' || _fSource[_fAt] == '\'')) {
          BeginString(begin);
          return;
        }
        if (Count(begin)) {
          Token(std::find(kUnfinishedWords.begin(), kUnfinishedWords.end(),
                          _fSource.substr(begin, _fAt - begin)) != kUnfinishedWords.end()
                    ? Last::kUnfinished
                    : Last::kWhole);
        }
        return;
    }
  }

  void Token(Last last) {
    _fLast = last;
    _fExtras = 0;
  }

  // At the first byte of a line outside brackets: closes the blocks that it does not belong to. The
  // tokens of a block's header stay on the parser's stack until then.
  void BeginLine() {
    size_t indent = 0;
    size_t at = _fLineBegin;
    while (at < _fSource.size() && (_fSource[at] == ' ' || _fSource[at] == '\t')) {
      indent += _fSource[at++] == '\t' ? 8 - indent % 8 : 1;
    }
    if (at != _fAt || at == _fSource.size() || _fSource[at] == '\n' || _fSource[at] == '\r' ||
        _fSource[at] == '#') {
      return;  // not there yet, or a line that does not count
    }
    if (_fHeaderTokens != 0) {
      if (indent > _fIndent && _fIsHeader) {
        _fBlocks.push_back(CBlock{_fIndent, _fHeaderTokens});
      }
      // Otherwise the block is missing, and who knows what the parser makes of that: the tokens
      // are left to count for good.
      _fHeaderTokens = 0;
    }
    while (!_fBlocks.empty() && indent <= _fBlocks.back().indent) {
      _fPending -= _fBlocks.back().tokens;
      _fBlocks.pop_back();
    }
    _fIndent = indent;
    const BytesView line = _fSource.substr(at, 8);
    const BytesView word = line.substr(0, line.find_first_of(" \t(:*\n"));
    _fIsHeader = std::find(kHeaderWords.begin(), kHeaderWords.end(), word) != kHeaderWords.end();
  }

  void EndLine() {
    _fLineBegin = _fAt;
    if (_fLast == Last::kUnfinished || _fLast == Last::kNothing) {
      return;
    }
    if (_fLast == Last::kColon) {
      _fHeaderTokens = Top().pending;
      Top() = CFrame();
    } else {
      Settle(Top(), false);
    }
    _fLast = Last::kNothing;
  }

  // The tokens of `frame` are put together by the parser, up to those that a comma does not end.
  void Settle(CFrame& frame, bool by_comma) {
    const size_t left = by_comma ? frame.kept : 0;
    _fPending -= frame.pending - left;
    frame.pending = left;
    frame.kept = left;
  }

  // Counts the token from `begin` to here; false when it had to be blanked.
  bool Count(size_t begin) {
    if (_fPending >= kMostPending) {
      Blank(begin, _fAt);
      return false;
    }
    CFrame& top = Top();
    ++top.pending;
    ++_fPending;
    // The comma in `lambda a, b:` ends nothing.
    if (_fSource.substr(begin, _fAt - begin) == "lambda") {
      ++top.kept;
    }
    return true;
  }

  void CountExtra(size_t begin, size_t end) {
    if (++_fExtras > kMostCommentsInARow) {
      FillWithSpaces(begin, end);  // silently: nothing is lost
    }
  }

  void SkipComment() {
    const size_t begin = _fAt;
    _fAt = std::min(_fSource.find('\n', begin), _fSource.size());
    CountExtra(begin, _fAt);
  }

  void Open(size_t begin) {
    if (_fDepth == kMostNesting) {
      ++_fBlankedDepth;
      Blank(begin, begin + 1);
      return;
    }
    _fFrames[++_fDepth] = CFrame();
  }

  void Close(size_t begin) {
    if (_fBlankedDepth != 0) {
      --_fBlankedDepth;
      Blank(begin, begin + 1);
      return;
    }
    if (_fDepth == 0) {
      Count(begin);  // it closes nothing, so it may well be kept
      return;
    }
    const CFrame closed = Top();
    if (closed.quote != 0 && _fSource[begin] != '}') {
      return;  // a stray bracket within an expression of a string
    }
    _fPending -= closed.pending;
    --_fDepth;
    if (closed.quote != 0) {
      InString(closed.quote, closed.triple, true);
    }
  }

  // `begin` is where the prefix or the quote stands; _fAt is behind the prefix.
  void BeginString(size_t begin) {
    bool has_expressions = false;
    bool is_prefix = true;
    for (size_t i = begin; i < _fAt; ++i) {
      const char c = static_cast<char>(_fSource[i] | 0x20);
      has_expressions = has_expressions || c == 'f' || c == 't';
      is_prefix = is_prefix && (c == 'f' || c == 't' || c == 'r' || c == 'b' || c == 'u');
    }
    if (begin != _fAt && !is_prefix) {
      Count(begin);
      has_expressions = false;
    }
    Token(Last::kWhole);
    const char quote = _fSource[_fAt];
    const bool triple = _fSource.substr(_fAt).starts_with(Bytes(3, quote));
    _fAt += triple ? 3 : 1;
    InString(quote, triple, has_expressions);
  }

  // _fAt is within the string; goes on to its end or to the next expression in it.
  void InString(char quote, bool triple, bool has_expressions) {
    while (_fAt < _fSource.size()) {
      const char c = _fSource[_fAt];
      if (c == '\\') {
        _fAt += 2;
      } else if (c == quote) {
        if (!triple || _fSource.substr(_fAt).starts_with(Bytes(3, quote))) {
          _fAt += triple ? 3 : 1;
          return;
        }
        ++_fAt;
      } else if (c == '\n' && !triple) {
        return;  // the string was never closed
      } else if (c == '{' && has_expressions) {
        if (_fSource.substr(_fAt).starts_with("{{")) {
          _fAt += 2;
        } else if (_fDepth == kMostNesting) {
          Blank(_fAt, _fAt + 1);
          ++_fAt;
        } else {
          ++_fAt;
          _fFrames[++_fDepth] = CFrame{.quote = quote, .triple = triple};
          return;
        }
      } else {
        ++_fAt;
      }
    }
    _fAt = std::min(_fAt, _fSource.size());
  }

  void Blank(size_t begin, size_t end) {
    if (_fResult.blanked == 0) {
      _fResult.first_blanked = static_cast<uint32_t>(begin);
    }
    // What stands side by side is one place.
    _fResult.blanked += begin > _fBlankedEnd + 1 || _fResult.blanked == 0 ? 1 : 0;
    _fBlankedEnd = end;
    FillWithSpaces(begin, end);
  }

  void FillWithSpaces(size_t begin, size_t end) {
    if (_fCopy.empty()) {
      _fCopy = Bytes(_fSource);
    }
    std::fill(_fCopy.begin() + static_cast<ptrdiff_t>(begin),
              _fCopy.begin() + static_cast<ptrdiff_t>(end), ' ');
  }

  const BytesView _fSource;
  Bytes& _fCopy;  // empty until something is blanked
  CGuardedSource& _fResult;
  size_t _fAt = 0;
  std::array<CFrame, kMostNesting + 1> _fFrames{};  // [0] is the statement outside all brackets
  size_t _fDepth = 0;
  size_t _fBlankedDepth = 0;  // open brackets that were blanked
  size_t _fPending = 0;       // of all frames up to _fDepth, of _fBlocks, and what was never closed
  Last _fLast = Last::kNothing;
  size_t _fLineBegin = 0;
  size_t _fIndent = 0;        // of the line
  bool _fIsHeader = false;    // whether it begins like the header of a block
  size_t _fHeaderTokens = 0;  // of the line before, when it should open a block
  std::vector<CBlock> _fBlocks;
  size_t _fExtras = 0;  // comments and continued lines since the last token
  size_t _fBlankedEnd = 0;
};

}  // namespace

CGuardedSource GuardSource(BytesView source, Bytes& copy) {
  CGuardedSource result;
  result.source = source;
  copy.clear();
  Bytes mended;
  if (NeedsMending(source)) {
    mended = Bytes(source);
    MendText(mended);
    source = mended;
  }
  if (source.size() > kHarmlessSize) {
    CNestingGuard(source, copy, result).Run();
  }
  if (copy.empty() && !mended.empty()) {
    copy = std::move(mended);
  }
  if (!copy.empty()) {
    result.source = copy;
  }
  return result;
}

}  // namespace pysource::standalone
