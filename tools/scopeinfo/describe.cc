#include "tools/scopeinfo/describe.h"

#include <algorithm>
#include <charconv>
#include <utility>

namespace pysource::tools {
namespace {

std::optional<int> ParseLine(BytesView text) {
  int line = 0;
  const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), line);
  return error == std::errc() && end == text.data() + text.size() && line > 0
             ? std::optional<int>(line)
             : std::nullopt;
}

bool IsLineKind(Kind kind) {
  return kind == kSetKind || kind == kSetTypeHintKind || kind == kGetKind ||
         kind == kWithinExprKind;
}

// "%2F" back to "/".
Text DecodeUrl(TextView url) {
  Text decoded;
  for (size_t i = 0; i < url.size(); ++i) {
    unsigned value = 0;
    if (url[i] == '%' && i + 2 < url.size() &&
        std::from_chars(url.data() + i + 1, url.data() + i + 3, value, 16).ptr ==
            url.data() + i + 3) {
      decoded += static_cast<char>(value);
      i += 2;
    } else {
      decoded += url[i];
    }
  }
  return decoded.starts_with("file://") ? decoded.substr(7) : decoded;
}

// Takes a leading ":U<url> " or ":S<scope> " off the item; its body, or absent when there is none.
std::optional<BytesView> TakeContext(BytesView& item, BytesView prefix) {
  const size_t space = item.find(' ');
  if (!item.starts_with(prefix) || space == BytesView::npos) {
    return std::nullopt;
  }
  const BytesView body = item.substr(kPrefixLen, space - kPrefixLen);
  item.remove_prefix(space + 1);
  return body;
}

Text DescribeContext(BytesView& item) {
  const auto url = TakeContext(item, kSpecificUrlPrefix);
  const auto scope = TakeContext(item, kSpecificScopePrefix);
  Text from;
  if (scope) {
    from = IsTopLevelModuleScope(*scope) ? "the module" : Text(*scope);
  }
  if (url) {
    from += (from.empty() ? "" : " in ") + DecodeUrl(*url);
  }
  return from;
}

Text DescribeValue(Kind kind, BytesView body) {
  if (kind == kFromImportKind) {
    const size_t space = body.find(' ');
    if (space != BytesView::npos) {
      return Text(body.substr(space + 1)) + " from " + Text(body.substr(0, space));
    }
  }
  if (kind == kImportAsNameKind) {
    return Text(body.substr(0, body.find(' ')));
  }
  return Text(body);
}

}  // namespace

const char* KindWord(Kind kind) {
  static constexpr std::pair<Kind, const char*> kWords[] = {
      {kSetKind, "set"},
      {kGetKind, "used"},
      {kSetTypeHintKind, "hint only"},
      {kNonlocalKind, "nonlocal"},
      {kGlobalKind, "global"},
      {kWithinExprKind, "in expression"},
      {kImportKind, "import"},
      {kFromImportKind, "import"},
      {kImportAsNameKind, "import"},
      {kDecoratorKind, "decorator"},
      {kBuiltinModuleKind, "builtin"},
      {kTypingModuleKind, "typing"},
      {kBuiltinClassKind, "builtin class"},
      {kTypedLiteralKind, "literal"},
      {kArgKind, "argument"},
      {kTypeHintKind, "type hint"},
      {kPlainEquivKind, "same as"},
      {kExpressionEquivKind, "expression"},
      {kMethodKind, "method"},
      {kUnboundMethodKind, "unbound method"},
      {kFunctionKind, "function"},
      {kClassKind, "class"},
      {kSelfKind, "self"},
      {kInstanceKind, "instance"},
      {kModuleKind, "module"},
      {kInferredTypeHintKind, "inferred type"},
      {kCalledKind, "call of"},
  };
  for (const auto& [known, word] : kWords) {
    if (known == kind) {
      return word;
    }
  }
  return "name";
}

std::vector<CAlternative> DescribeInfoBytes(BytesView ibytes) {
  std::vector<CAlternative> alternatives;
  std::optional<CAlternative> open;  // a binding that nothing was said of yet
  const auto close = [&] {
    if (open) {
      alternatives.push_back(*std::exchange(open, std::nullopt));
    }
  };
  std::optional<int> line;  // of the binding that items belong to
  Text line_from;           // and where that is; empty: here
  ForEachNonNested(ibytes, kInfoBytesSep, [&](BytesView item) {
    CAlternative alternative;
    alternative.from = DescribeContext(item);
    const Kind kind = GetInfoBytesKind(item);
    const BytesView body = kind == kPlainEquivKind ? item : item.substr(kPrefixLen);
    alternative.kind = KindWord(kind);
    if (IsLineKind(kind)) {
      alternative.line = ParseLine(body);
      // "x: int = 3" is set at a line and hinted at it: one binding.
      if (!open || open->line != alternative.line || open->from != alternative.from) {
        close();
      }
      line = alternative.line;
      line_from = alternative.from;
      open = std::move(alternative);
      return;
    }
    // What a method sets on self is bound at a line here, to what a name means there.
    if (line_from.empty() || line_from == alternative.from) {
      alternative.line = line;
    } else {
      close();
    }
    alternative.value = DescribeValue(kind, body);
    open.reset();
    alternatives.push_back(std::move(alternative));
  });
  close();
  return alternatives;
}

CDefinition SplitDefinition(BytesView item) {
  const BytesView body = item.substr(std::min(kPrefixLen, item.size()));
  const size_t bracket = body.find('(');
  if (bracket == BytesView::npos) {
    return {body, {}};
  }
  const size_t end = body.rfind(')');
  const size_t from = bracket + 1;
  return {body.substr(0, bracket),
          body.substr(from, (end == BytesView::npos || end < from ? body.size() : end) - from)};
}

}  // namespace pysource::tools
