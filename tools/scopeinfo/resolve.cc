// scopeinfo show --resolve: where a name is defined, across files.
#include <fmt/format.h>

#include <string>

#include "pysource/host/errors.h"
#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/standalone/engine/nameresolver.h"
#include "tools/scopeinfo/commands.h"
#include "tools/scopeinfo/describe.h"
#include "tools/scopeinfo/output.h"
#include "tools/scopeinfo/session.h"

namespace pysource::tools {
namespace {

using nlohmann::ordered_json;
using standalone::CNameDefinition;

std::string FileOf(Loc loc) { return PathForLocation(loc).value_or(loc->fUrl); }

// "Window.close", or the module's file name for a module.
std::string NameOf(const CNameDefinition& definition) {
  return definition.scope.empty() ? definition.name : definition.scope + "." + definition.name;
}

}  // namespace

ordered_json ResolutionToJson(const standalone::CResolution& resolution) {
  ordered_json json{{"definitions", ordered_json::array()}, {"lost", resolution.lost}};
  for (const CNameDefinition& definition : resolution.definitions) {
    ordered_json item{{"file", FileOf(definition.loc)},
                      {"scope", definition.scope},
                      {"name", definition.name},
                      {"instance", definition.inst},
                      {"kind", KindWords(definition.kind)},
                      {"value", definition.value}};
    item["line"] = definition.line ? ordered_json(*definition.line) : ordered_json();
    item["path"] = definition.path;
    json["definitions"].push_back(std::move(item));
  }
  return json;
}

int RunResolve(const COptions& options) {
  CSession session(options);
  session.AnswerFirst();
  const Loc loc = session.OpenFile(options.file);
  standalone::CNameResolver resolver(session.Engine());
  const auto resolution =
      resolver.Resolve({loc, options.scope, options.resolve}, session.Between());
  session.ThrowIfNotScanned(loc);
  if (options.json) {
    WriteJson(ResolutionToJson(*resolution));
  } else {
    std::string text;
    for (const CNameDefinition& definition : resolution->definitions) {
      text += fmt::format("{}:{}: {}{}{}\n", Printable(FileOf(definition.loc)),
                          definition.line.value_or(0),
                          definition.inst ? "instance attribute, " : "", KindWords(definition.kind),
                          definition.name.empty() ? "" : " " + Printable(NameOf(definition)));
      for (const Text& step : definition.path) {
        text += fmt::format("    {}\n", Printable(step));
      }
    }
    Write(text);
  }
  if (resolution->definitions.empty()) {
    for (const Text& lost : resolution->lost) {
      Complain(lost);
    }
  }
  session.Finish();
  if (!resolution->definitions.empty()) {
    return kExitOk;
  }
  return kExitFailed;
}

}  // namespace pysource::tools
