#include "pysource/standalone/scanner/linecheck.h"

#include <algorithm>
#include <array>

namespace pysource::standalone {
namespace {

inline bool IsDigit(char c) { return c >= '0' && c <= '9'; }
inline bool IsWordByte(char c) {
  return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || IsDigit(c) || c == '_' ||
         static_cast<unsigned char>(c) >= 0x80;
}

// Keywords that neither begin a statement nor are values.
constexpr std::array<BytesView, 5> kOperatorWords{"and", "as", "in", "is", "or"};
// Names at the beginning of a statement that other names may follow; "print" and "exec" are the
// statements of old, of which no more is said here.
constexpr std::array<BytesView, 5> kSoftWords{"case", "exec", "match", "print", "type"};

template <size_t kSize>
bool IsOneOf(BytesView word, const std::array<BytesView, kSize>& words) {
  return std::find(words.begin(), words.end(), word) != words.end();
}

bool OpensBlock(FirstWord word) {
  switch (word) {
    case FirstWord::kClass:
    case FirstWord::kDef:
    case FirstWord::kElif:
    case FirstWord::kElse:
    case FirstWord::kExcept:
    case FirstWord::kFinally:
    case FirstWord::kFor:
    case FirstWord::kIf:
    case FirstWord::kTry:
    case FirstWord::kWhile:
    case FirstWord::kWith:
      return true;
    default:
      return false;
  }
}

class CChecker {
 public:
  CChecker(BytesView source, const CLogicalLine& line, const std::vector<CTextSpan>& spans)
      : _fSource(source), _fLine(line), _fSpans(spans), _fAt(line.begin) {
    _fCheck.is_header = OpensBlock(line.first);
  }

  CLineCheck Run() {
    while (_fAt < _fLine.text_end) {
      Token();
    }
    Finish();
    return _fCheck;
  }

 private:
  // What the last token asks of the next one.
  enum class After : uint8_t {
    kBegin,     // a statement may begin
    kOperand,   // an operator, or the end
    kOperator,  // an operand
    kMayEnd,    // an operand, or the end
    kSoftWord,  // anything
  };

  void Token() {
    if (_fNextSpan < _fSpans.size() && _fAt == _fSpans[_fNextSpan].begin) {
      SkipSpan();
      return;
    }
    const char c = _fSource[_fAt];
    if (c == ' ' || c == '\t' || c == '\f' || c == '\n' || c == '\r' || c == '\\') {
      ++_fAt;
      return;
    }
    const uint32_t begin = _fAt;
    if (IsDigit(c) || (c == '.' && _fAfter != After::kOperand && IsDigit(Peek(1)))) {
      SkipNumber();
      Operand(false);
    } else if (IsWordByte(c)) {
      Word();
    } else {
      ++_fAt;
      Sign(c);
    }
    _fCheck.last_token = begin;
    _fCheck.ends_in_subscript = _fCheck.ends_in_subscript && c == '[';
  }

  void SkipSpan() {
    const CTextSpan& span = _fSpans[_fNextSpan++];
    if (!span.is_comment) {
      _fCheck.last_token = _fAt;
      _fCheck.ends_in_subscript = false;
      Operand(true);
    }
    _fAt = span.end != 0 ? std::max(span.end, _fAt + 1) : _fLine.text_end;
  }

  void Operand(bool is_string) {
    if (_fAfter == After::kOperand && !(is_string && _fLastIsString)) {
      _fCheck.is_prose = true;
    }
    _fAfter = After::kOperand;
    _fLastIsString = is_string;
  }

  void SkipNumber() {
    const bool has_base = Peek(0) == '0' && IsWordByte(Peek(1)) && !IsDigit(Peek(1)) &&
                          BytesView("xXoObB").find(Peek(1)) != BytesView::npos;
    if (has_base) {
      while (IsWordByte(Peek(0))) {
        ++_fAt;
      }
      return;
    }
    bool has_point = false;
    while (true) {
      const char c = Peek(0);
      if (IsDigit(c) || (c == '.' && !has_point) || c == '_' || c == 'j' || c == 'J') {
        has_point = has_point || c == '.';
        ++_fAt;
      } else if ((c == 'e' || c == 'E') &&
                 (IsDigit(Peek(1)) || ((Peek(1) == '-' || Peek(1) == '+') && IsDigit(Peek(2))))) {
        _fAt += 2;
        has_point = true;
      } else {
        return;
      }
    }
  }

  void Word() {
    const uint32_t begin = _fAt;
    while (IsWordByte(Peek(0))) {
      ++_fAt;
    }
    const BytesView word = _fSource.substr(begin, _fAt - begin);
    const bool is_prefix = _fNextSpan < _fSpans.size() && _fAt == _fSpans[_fNextSpan].begin &&
                           word.size() <= 2 &&
                           word.find_first_not_of("rRbBuUfFtT") == BytesView::npos;
    if (is_prefix) {
      return;
    }
    const FirstWord keyword = FirstWordOf(word);
    switch (keyword) {
      case FirstWord::kOther:
      case FirstWord::kCase:
      case FirstWord::kMatch:
      case FirstWord::kType:
        if (IsOneOf(word, kOperatorWords)) {
          _fAfter = After::kOperator;
          _fCheck.has_in = _fCheck.has_in || (word == "in" && _fDepth == 0);
        } else {
          const bool is_soft = _fAfter == After::kBegin && IsOneOf(word, kSoftWords);
          Operand(false);
          _fAfter = is_soft ? After::kSoftWord : After::kOperand;
        }
        return;
      case FirstWord::kBreak:
      case FirstWord::kContinue:
      case FirstWord::kPass:
      case FirstWord::kRaise:
      case FirstWord::kReturn:
      case FirstWord::kYield:
      // Names until 3.7.
      case FirstWord::kAsync:
      case FirstWord::kAwait:
        _fAfter = After::kMayEnd;
        return;
      case FirstWord::kLambda:
        _fCheck.lambdas += _fDepth == 0 ? 1 : 0;
        break;
      case FirstWord::kImport:
        _fCheck.has_import = true;
        break;
      default:
        break;
    }
    if (_fLine.first == FirstWord::kAsync && OpensBlock(keyword) && _fDepth == 0) {
      _fCheck.is_header = true;
    }
    _fAfter = After::kOperator;
  }

  void Sign(char c) {
    switch (c) {
      case '(':
      case '[':
        ++_fDepth;
        _fCheck.ends_in_subscript = c == '[' && _fAfter == After::kOperand;
        _fAfter = After::kOperator;
        break;
      case '{':
        ++_fDepth;
        _fCheck.is_prose = _fCheck.is_prose || _fAfter == After::kOperand;
        _fAfter = After::kOperator;
        break;
      case ')':
      case ']':
      case '}':
        _fDepth -= _fDepth != 0 ? 1 : 0;
        _fAfter = After::kOperand;
        _fLastIsString = false;
        break;
      case ';':
        _fAfter = After::kBegin;
        break;
      case ':':
        Colon();
        break;
      case '.':
        // "..." is a value, but not where relative imports count their dots.
        if (_fAfter != After::kOperand && Peek(0) == '.' && Peek(1) == '.' &&
            (_fLine.first != FirstWord::kFrom || _fCheck.has_import)) {
          _fAt += 2;
          Operand(false);
        } else {
          _fAfter = After::kOperator;
        }
        break;
      default:
        // No statement begins with an operator that stands between two operands.
        _fCheck.is_prose = _fCheck.is_prose || (_fAfter == After::kBegin &&
                                                BytesView("*+-~@").find(c) == BytesView::npos);
        _fAfter = After::kOperator;
    }
  }

  void Colon() {
    _fAfter = After::kOperator;
    if (_fDepth != 0 || Peek(0) == '=') {
      return;
    }
    if (_fCheck.lambdas != 0) {
      --_fCheck.lambdas;
    } else if (_fCheck.is_header && !_fCheck.has_colon) {
      _fCheck.has_colon = true;
      _fAfter = After::kBegin;
    }
  }

  void Finish() {
    _fCheck.lacks_word = (_fLine.first == FirstWord::kFrom && !_fCheck.has_import) ||
                         (_fLine.first == FirstWord::kFor && !_fCheck.has_in);
    if (_fAfter != After::kOperator) {
      return;
    }
    const char last = _fSource[_fCheck.last_token];
    const FirstWord first = _fLine.first;
    if (last == ',') {
      _fCheck.unfinished = first == FirstWord::kImport || first == FirstWord::kFrom ||
                           first == FirstWord::kGlobal || first == FirstWord::kNonlocal ||
                           (_fCheck.is_header && !_fCheck.has_colon);
    } else if (last == ':') {
      _fCheck.unfinished = first != FirstWord::kMatch && first != FirstWord::kCase;
    } else if (last == '(' || last == '[' || last == '{') {
      _fCheck.unfinished = false;  // the bracket is what has no end
    } else if (last == '*') {
      _fCheck.unfinished = !_fCheck.has_import;
    } else {
      _fCheck.unfinished = true;
    }
  }

  char Peek(uint32_t ahead) const {
    return _fAt + ahead < _fLine.text_end ? _fSource[_fAt + ahead] : '\0';
  }

  const BytesView _fSource;
  const CLogicalLine& _fLine;
  const std::vector<CTextSpan>& _fSpans;
  CLineCheck _fCheck;
  uint32_t _fAt;
  size_t _fNextSpan = 0;
  After _fAfter = After::kBegin;
  bool _fLastIsString = false;
  uint32_t _fDepth = 0;
};

}  // namespace

CLineCheck CheckLine(BytesView source, const CLogicalLine& line,
                     const std::vector<CTextSpan>& spans) {
  return CChecker(source, line, spans).Run();
}

bool LacksSomething(BytesView source, const CLogicalLine& line,
                    const std::vector<CTextSpan>& spans) {
  const bool may_be_header = OpensBlock(line.first) || line.first == FirstWord::kAsync;
  if (may_be_header && line.opens_block && line.first != FirstWord::kFor) {
    return false;
  }
  const char last = source[line.text_end - 1];
  bool may_lack = may_be_header || line.opens_block || line.first == FirstWord::kFrom;
  if (IsWordByte(last)) {
    uint32_t begin = line.text_end - 1;
    while (begin > line.begin && IsWordByte(source[begin - 1]) && line.text_end - begin <= 8) {
      --begin;
    }
    const BytesView word = source.substr(begin, line.text_end - begin);
    may_lack = may_lack || FirstWordOf(word) != FirstWord::kOther || IsOneOf(word, kOperatorWords);
  } else {
    may_lack = may_lack || (last != ')' && last != ']' && last != '}' && last != '"' &&
                            last != '\'' && last != ';');
  }
  if (!may_lack) {
    return false;
  }
  const CLineCheck check = CheckLine(source, line, spans);
  return !check.IsWhole();
}

}  // namespace pysource::standalone
