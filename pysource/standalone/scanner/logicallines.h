// The logical lines of Python source, one after the other.
//
// A logical line is what Python ends with a NEWLINE token: one statement, or several with ";"
// between, or the header of a block with what follows it in the line. It may span many physical
// lines through brackets, strings in triple quotes and backslashes. Blank lines and comments belong
// to none. Statements, and no more, can be told without a parser, at a hundred times its speed.
//
//   CLogicalLines lines(source);
//   for (CLogicalLine line; lines.Next(line);) { ... }
//
// On source that Python accepts (of any version from 3.0 on, with the f-strings of 3.12) the lines
// are exactly Python's. On any other source the pass goes on as well as it can: a string in single
// quotes ends with its line at the latest, and a bracket does not reach over a line that begins
// with a word that only a statement begins with ("def", "return"; no expression has one, so no
// valid source is concerned). Time is in proportion to the source, and memory is constant.
#pragma once

#include <array>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "pysource/host/text.h"

namespace pysource::standalone {

// What a logical line begins with.
enum class FirstWord : uint8_t {
  kOther,  // a name, a literal, a bracket, an operator
  kDecorator,
  // These begin statements and nothing else: no expression contains them.
  kAssert,
  kBreak,
  kClass,
  kContinue,
  kDef,
  kDel,
  kElif,
  kExcept,
  kFinally,
  kGlobal,
  kImport,
  kNonlocal,
  kPass,
  kRaise,
  kReturn,
  kTry,
  kWhile,
  kWith,
  // These stand in expressions too.
  kAsync,
  kAwait,
  kElse,
  kFor,
  kFrom,
  kIf,
  kLambda,
  kNot,
  kYield,
  // Keywords in some places, names in all others.
  kCase,
  kMatch,
  kType,
};

// The word at the beginning of `text`.
FirstWord FirstWordOf(BytesView text);

inline bool OnlyBeginsStatements(FirstWord word) {
  return word >= FirstWord::kAssert && word <= FirstWord::kWith;
}

// Python takes no more brackets within each other.
inline constexpr uint32_t kMaxNesting = 200;
inline constexpr uint32_t kMaxContinuations = 100;
inline constexpr uint32_t kLongLine = 8192;
inline constexpr uint32_t kMaxChain = 1000;

struct CLogicalLine {
  uint32_t begin = 0;     // of the first token, in bytes
  uint32_t text_end = 0;  // behind the last token
  uint32_t end = 0;       // behind the line's end: the next line, blank ones included, begins here
  uint32_t row = 0;       // of `begin`, counted from 0
  uint32_t indent = 0;    // in columns; a tab goes to the next multiple of 8, a form feed to 0
  FirstWord first = FirstWord::kOther;
  // The last token is a ":" outside of brackets, so that a block has to follow.
  bool opens_block = false;

  // What is wrong with it as far as brackets and strings tell.
  uint32_t open_brackets = 0;   // not closed where the line was given up
  uint32_t stray_brackets = 0;  // close none, or skip one that is open
  uint32_t stray_at = 0;        // the first of them
  uint32_t open_strings = 0;    // without an end
  // Where a line becomes more than a parser can take in good time; 0 when it never does. That is
  // where brackets lie deeper than Python takes (kMaxNesting), where more than kMaxContinuations
  // lines follow each other that hold a backslash and nothing else, and in a line of more than
  // kLongLine bytes where lambdas lie as deep or there are more than kMaxChain "=" and ":" outside
  // of brackets.
  uint32_t excess_at = 0;
  bool IsDamaged() const { return open_brackets != 0 || stray_brackets != 0 || open_strings != 0; }
};

// A part of the source that is no code: a string with its quotes (not the prefix), or a comment.
struct CTextSpan {
  uint32_t begin;
  uint32_t end;
  bool is_comment;
};

class CLogicalLines {
 public:
  // REQUIRES: `begin` is where a physical line begins, outside of brackets and strings; `row` is
  // its number. The source is smaller than 4 GiB.
  explicit CLogicalLines(BytesView source, size_t begin = 0, uint32_t row = 0);

  // The next line; false when there is none.
  bool Next(CLogicalLine& line);

  // From now on the strings and comments of each line are noted in `spans`, in order; what fields of
  // f-strings hold belongs to the string. The line before is forgotten.
  void NoteSpans(std::vector<CTextSpan>* spans) { _fSpans = spans; }

  // What would close all that is open where the last line was given up, the innermost first: `"]`
  // for `f(x)["a`. REQUIRES: the source ended there.
  Bytes Closers() const;
  // Where the brackets stand that were open then, the outermost first.
  std::vector<uint32_t> OpenBrackets() const;

 private:
  // A bracket that is open, or a replacement field of an f-string.
  struct CFrame {
    char close = 0;  // the bracket that ends it
    uint32_t at = 0;
    char quote = 0;       // of the string that the field stands in; 0 for a plain bracket
    bool triple = false;  // whether there are three of them
    bool raw = false;
    bool in_spec = false;  // behind the ":" of the field
  };
  // The quotes that a string ends with, and how its text is read.
  struct CString {
    char quote;
    bool triple;
    bool raw;
  };

  // Python takes 200 brackets within each other. Beyond this they are counted and not told apart.
  static constexpr uint32_t kMaxFrames = 256;

  bool FindFirstToken(CLogicalLine& line);
  void ReadLine();
  void NoteCode(size_t run);
  void NoteSpan(size_t begin, bool is_comment);
  void Newline();
  void Backslash();
  bool BeginsStatement() const;
  void Open(char close);
  void NoteDepth();
  void NoteChains(size_t line_begin, size_t run);
  void Close(char bracket);
  void NoteStray(size_t at);
  void BeginString(size_t line_begin);
  void EndString(const CString& string);
  bool EndsString(const CString& string);
  bool NewlineInText(const CString& string);
  void ReadText(const CString& string);
  void ReadFText(const CString& string);
  void EscapeInFText(const CString& string);
  bool BeginField(const CString& string);
  void BeginSpec();

  uint32_t Depth() const { return _fFrameCount + _fOverflow; }
  bool InField() const {
    return _fOverflow == 0 && _fFrameCount != 0 && _fFrames[_fFrameCount - 1].quote != 0;
  }
  char Peek(size_t ahead = 0) const { return _fAt + ahead < _fSize ? _fData[_fAt + ahead] : '\0'; }

  const char* const _fData;
  const size_t _fSize;
  size_t _fAt;
  uint32_t _fRow;
  // Of the line that is read.
  size_t _fTextEnd = 0;
  uint32_t _fStrayBrackets = 0;
  size_t _fStrayAt = 0;
  uint32_t _fOpenStrings = 0;
  Bytes _fMissingQuote;   // of the string that the source ends in, if it is not that of a field
  uint32_t _fFields = 0;  // replacement fields among the frames
  std::vector<CTextSpan>* _fSpans = nullptr;
  uint32_t _fExcessAt = 0;
  uint32_t _fContinuations = 0;  // since the last token...
  size_t _fContinuedText = 0;    // ...which ends here
  uint32_t _fChain = 0;          // "=" and ":" outside of brackets
  uint32_t _fLambdas = 0;        // since a bracket closed
  std::array<CFrame, kMaxFrames> _fFrames;
  uint32_t _fFrameCount = 0;
  uint32_t _fOverflow = 0;  // open brackets beyond the frames
};

}  // namespace pysource::standalone
