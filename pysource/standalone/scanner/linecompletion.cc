#include "pysource/standalone/scanner/linecompletion.h"

#include <algorithm>
#include <vector>

#include "pysource/standalone/scanner/linecheck.h"
#include "pysource/standalone/scanner/logicallines.h"

namespace pysource::standalone {
namespace {

constexpr BytesView kPlaceholder = " _";

struct CBeginning {
  CLogicalLine line;
  CLineCheck check;
  Bytes closers;

  BytesView LastToken(BytesView text) const {
    return text.substr(check.last_token, line.text_end - check.last_token);
  }
  // The closers begin with the quote of the string that the text ends in.
  bool EndsInString() const {
    return !closers.empty() && BytesView("\"'\\").find(closers[0]) != BytesView::npos;
  }
};

CBeginning Read(BytesView text) {
  CBeginning result;
  CLogicalLines lines(text);
  std::vector<CTextSpan> spans;
  lines.NoteSpans(&spans);
  if (lines.Next(result.line)) {
    result.check = CheckLine(text, result.line, spans);
    result.closers = lines.Closers();
  }
  return result;
}

bool IsStatementOfNames(FirstWord first) {
  return first == FirstWord::kImport || first == FirstWord::kFrom || first == FirstWord::kGlobal ||
         first == FirstWord::kNonlocal || first == FirstWord::kDel;
}

// What an unfinished line lacks behind its last token; the token itself is dropped where nothing
// can follow that would not say too much. Empty when the whole line says nothing.
bool Fill(BytesView text, const CBeginning& beginning, CCompletion& completion) {
  const BytesView last = beginning.LastToken(text);
  const FirstWord first = beginning.line.first;
  const bool in_brackets = !beginning.closers.empty();
  if (last == "as" || (last == "," && !in_brackets) ||
      ((last == "." || last == "*") && IsStatementOfNames(first))) {
    completion.keep = beginning.check.last_token;
    return true;
  }
  if (IsStatementOfNames(first) && !in_brackets) {
    return false;
  }
  if (last == ",") {
    return true;
  }
  if (last == "for") {
    completion.text = " _ in _";
  } else if (last == "lambda") {
    completion.text = ": _";
  } else if (last == ".") {
    completion.text = "_";
  } else if (last != "try" && last != "finally" && last != "except" &&
             !(last == "else" && first == FirstWord::kElse) &&
             !(last == "/" && beginning.check.is_header)) {
    completion.text = kPlaceholder;
  }
  return true;
}

// Behind the last token of a header, before the brackets are closed and after.
void AddHeaderParts(BytesView text, const CBeginning& beginning, CCompletion& completion) {
  const bool is_def =
      beginning.line.first == FirstWord::kDef ||
      (beginning.line.first == FirstWord::kAsync && text.find("def") != BytesView::npos);
  if (is_def && text.find('(') == BytesView::npos) {
    completion.text += "()";
  }
  if (beginning.line.first == FirstWord::kFor && !beginning.check.has_in &&
      completion.text != " _ in _") {
    completion.text += " in _";
  }
  completion.text += ':';
}

}  // namespace

CCompletion CompleteLine(BytesView text) {
  const CBeginning beginning = Read(text);
  const FirstWord first = beginning.line.first;
  CCompletion completion{beginning.line.text_end, {}};
  const bool ends_in_string = beginning.EndsInString();
  if (ends_in_string) {
    completion.keep = text.size();
    // Of three quotes, one or two may be there already.
    const char quote = beginning.closers[0];
    if (BytesView(beginning.closers).substr(0, 3) == Bytes(3, quote)) {
      while (completion.keep > text.size() - std::min<size_t>(2, text.size()) &&
             text[completion.keep - 1] == quote) {
        --completion.keep;
      }
    }
  } else {
    const bool says_nothing = (first == FirstWord::kFrom && !beginning.check.has_import) ||
                              (first == FirstWord::kFrom && beginning.LastToken(text) == "(") ||
                              (beginning.check.unfinished && !Fill(text, beginning, completion));
    if (says_nothing) {
      return {0, "pass"};
    }
    const BytesView last = beginning.LastToken(text);
    if (beginning.check.ends_in_subscript ||
        (last == "{" && beginning.closers.size() > 1 &&
         (beginning.closers[1] == '"' || beginning.closers[1] == '\''))) {
      completion.text = "_";
    }
  }
  completion.text += beginning.closers;
  if (beginning.check.lambdas != 0 && completion.text != ": _") {
    completion.text += ": _";
  }
  if (beginning.check.is_header && !beginning.check.has_colon) {
    AddHeaderParts(text, beginning, completion);
  }
  return completion;
}

}  // namespace pysource::standalone
