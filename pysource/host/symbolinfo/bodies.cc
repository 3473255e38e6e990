#include "pysource/host/symbolinfo/bodies.h"

#include <algorithm>

#include "pysource/host/symbolinfo/kinds.h"

namespace pysource {
namespace {

bool IsNameByte(char c) {
  return c == '_' || (c >= '0' && c <= '9') || (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') ||
         static_cast<unsigned char>(c) >= 0x80;
}

}  // namespace

std::optional<CImportBody> ReadImport(Kind kind, BytesView body) {
  if (kind == kImportKind) {
    return CImportBody{body, {}, {}};
  }
  const size_t space = body.find(' ');
  if (space == BytesView::npos) {
    return std::nullopt;
  }
  const TextView module = body.substr(0, space);
  const TextView second = body.substr(space + 1);
  if (kind == kFromImportKind) {
    return CImportBody{module, second, {}};
  }
  if (kind == kImportAsNameKind) {
    return CImportBody{module, {}, second};
  }
  return std::nullopt;
}

CDefinitionBody ReadDefinition(BytesView body) {
  const size_t bracket = body.find('(');
  if (bracket == BytesView::npos) {
    return {body, {}};
  }
  const size_t begin = bracket + 1;
  const size_t end = body.rfind(')');
  return {body.substr(0, bracket),
          body.substr(begin, (end == BytesView::npos || end < begin ? body.size() : end) - begin)};
}

CArgument ReadArgument(BytesView argument) {
  CArgument read;
  if (argument == "*") {
    read.form = CArgument::EForm::kKeywordsOnly;
    return read;
  }
  if (argument == "/") {
    read.form = CArgument::EForm::kPositionsOnly;
    return read;
  }
  if (argument.starts_with("**")) {
    read.form = CArgument::EForm::kKeywordRest;
    argument.remove_prefix(2);
  } else if (argument.starts_with("*")) {
    read.form = CArgument::EForm::kRest;
    argument.remove_prefix(1);
  }
  read.has_default = argument.ends_with('=');
  argument.remove_suffix(read.has_default ? 1 : 0);
  read.name = argument;
  return read;
}

CClassArgument ReadClassArgument(BytesView argument) {
  const auto name_end = std::find_if_not(argument.begin(), argument.end(), IsNameByte);
  const auto name = static_cast<size_t>(name_end - argument.begin());
  // "a==b" is a base, if a strange one.
  if (name == 0 || name == argument.size() || argument[name] != '=' ||
      argument.substr(name + 1).starts_with('=')) {
    return {{}, argument};
  }
  return {argument.substr(0, name), argument.substr(name + 1)};
}

TextView DottedPart(TextView expression) {
  const TextView dotted = expression.substr(0, expression.find_first_of("[("));
  const bool is_dotted =
      std::all_of(dotted.begin(), dotted.end(), [](char c) { return c == '.' || IsNameByte(c); });
  return is_dotted ? dotted : TextView();
}

}  // namespace pysource
