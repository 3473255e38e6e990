// scopeinfo show: the record of a scope, merged from all its scans.
#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <numeric>
#include <optional>
#include <string>
#include <tuple>
#include <utility>
#include <vector>

#include "pysource/host/errors.h"
#include "pysource/host/symbolinfo/bodies.h"
#include "pysource/host/symbolinfo/items.h"
#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "tools/scopeinfo/commands.h"
#include "tools/scopeinfo/describe.h"
#include "tools/scopeinfo/explain.h"
#include "tools/scopeinfo/output.h"
#include "tools/scopeinfo/session.h"

namespace pysource::tools {
namespace {

using nlohmann::ordered_json;
using scopeinfo::CScopeInfo;
using scopeinfo::CScopeInfoKey;

constexpr size_t kMostSuggestions = 5;

// How many letters have to be put in, taken out or exchanged.
size_t EditDistance(TextView a, TextView b) {
  std::vector<size_t> row(b.size() + 1);
  std::iota(row.begin(), row.end(), size_t{0});
  for (size_t i = 0; i < a.size(); ++i) {
    size_t diagonal = row[0];
    row[0] = i + 1;
    for (size_t j = 0; j < b.size(); ++j) {
      const size_t above = row[j + 1];
      row[j + 1] = std::min({above + 1, row[j] + 1, diagonal + (a[i] == b[j] ? 0 : 1)});
      diagonal = above;
    }
  }
  return row.back();
}

Text Lower(TextView text) {
  Text lower(text);
  std::transform(lower.begin(), lower.end(), lower.begin(),
                 [](char c) { return c >= 'A' && c <= 'Z' ? static_cast<char>(c + 32) : c; });
  return lower;
}

// The names that the user may have meant, the nearest first: by the whole name, or by its last part
// alone ("decode" for "JSONDecoder.decode").
std::vector<Text> NearMatches(TextView wanted, const std::vector<Text>& names) {
  std::vector<std::pair<size_t, Text>> matches;
  const Text lower = Lower(wanted);
  for (const Text& name : names) {
    if (name.empty()) {
      continue;
    }
    const Text lower_name = Lower(name);
    const size_t distance =
        std::min(EditDistance(lower, lower_name),
                 EditDistance(lower, ParentAndLeafScopeNames(lower_name).second) + 1);
    if (distance <= 1 + wanted.size() / 3) {
      matches.emplace_back(distance, name);
    }
  }
  std::sort(matches.begin(), matches.end());
  std::vector<Text> nearest;
  for (size_t i = 0; i < std::min(matches.size(), kMostSuggestions); ++i) {
    nearest.push_back(std::move(matches[i].second));
  }
  return nearest;
}

[[noreturn]] void ThrowUnknownScope(const COptions& options, const std::vector<Text>& names) {
  std::string message =
      fmt::format("{} has no scope \"{}\"", options.file, Printable(options.scope));
  const std::vector<Text> nearest = NearMatches(options.scope, names);
  for (size_t i = 0; i < nearest.size(); ++i) {
    message += (i == 0                   ? "; did you mean "
                : i + 1 < nearest.size() ? ", "
                                         : " or ") +
               Printable(nearest[i]);
  }
  throw CValueError(message + (nearest.empty()
                                   ? "; see them all with: scopeinfo scopes " + options.file
                                   : Text("?")));
}

std::string FileOf(Loc loc) { return loc ? PathForLocation(loc).value_or(loc->fUrl) : ""; }

// One scan whose record is part of the answer.
struct CMergedScan {
  Text scan;
  Loc file;
  Text scope;
};

// The primary one first, then by file.
std::vector<CMergedScan> ScansOf(const CScopeInfo& info) {
  std::vector<CMergedScan> scans;
  const auto add = [&](const CScopeInfoKey& key) {
    // The key of the answer itself says no longer which scan it began with: the primary one, of the
    // scope itself.
    scans.push_back(key.scan_name() ? CMergedScan{Text(*key.scan_name()), key.scanned_loc(),
                                                  Text(key.scanned_scope().value_or(""))}
                                    : CMergedScan{Text(standalone::kPrimaryScan.name), info.loc,
                                                  Text(info.for_scope)});
  };
  if (info.merged_keys->begin() == info.merged_keys->end()) {
    add(info.key);
  }
  for (const CScopeInfoKey& key : *info.merged_keys) {
    add(key);
  }
  const auto rank = [&info](const CMergedScan& scan) {
    return std::tuple(scan.file != info.loc, standalone::ScanIndex(scan.scan),
                      scan.file ? scan.file->fUrl : Text(), scan.scope);
  };
  std::sort(scans.begin(), scans.end(),
            [&rank](const auto& a, const auto& b) { return rank(a) < rank(b); });
  return scans;
}

struct CNameLine {
  TextView name;
  BytesView ibytes;
  std::vector<CAlternative> alternatives;
};

// As they stand in the source; what has no line comes last. Records do not keep that order. Either
// the names that variables can have, or those that say something of the scope itself.
std::vector<CNameLine> InSourceOrder(const CStrDict& names, bool of_variables) {
  std::vector<CNameLine> lines;
  for (const auto& [name, ibytes] : names) {
    if (IsVariableName(name) == of_variables) {
      lines.push_back({name, ibytes, DescribeInfoBytes(ibytes)});
    }
  }
  std::sort(lines.begin(), lines.end(), [](const CNameLine& a, const CNameLine& b) {
    const auto rank = [](const CNameLine& line) {
      return std::pair(
          line.alternatives.empty() ? INT_MAX : line.alternatives.front().line.value_or(INT_MAX),
          line.name);
    };
    return rank(a) < rank(b);
  });
  return lines;
}

ordered_json NamesToJson(const CStrDict& names, const std::optional<CStrDict>& domains,
                         bool of_variables = true) {
  ordered_json array = ordered_json::array();
  for (const auto& [name, ibytes, described] : InSourceOrder(names, of_variables)) {
    ordered_json entry{{"name", name}, {"info", ibytes}};
    ordered_json& alternatives = entry["alternatives"] = ordered_json::array();
    for (const CAlternative& alternative : described) {
      ordered_json item;
      item["line"] = alternative.line ? ordered_json(*alternative.line) : ordered_json();
      item["kind"] = alternative.kind;
      item["value"] = alternative.value;
      if (!alternative.from.empty()) {
        item["from"] = alternative.from;
      }
      alternatives.push_back(std::move(item));
    }
    if (const auto domain = domains ? domains->Get(name) : std::nullopt) {
      entry["domain"] = *domain;
    }
    array.push_back(std::move(entry));
  }
  return array;
}

ordered_json ToJson(const CScopeInfo& info, const CSession& session) {
  ordered_json json;
  json["file"] = FileOf(info.loc);
  json["scope"] = info.for_scope;
  json["kind"] = KindWords(info.scope_kind);
  json["info"] = info.scope_ibytes;
  json["exists"] = !info.does_not_exist;
  json["incomplete"] = info.incomplete;
  json["disk_time"] = info.disk_mtime ? ordered_json(*info.disk_mtime) : ordered_json();
  json["source"] = session.FilesScanned() == 0 ? "database" : "scan";
  json["names"] = NamesToJson(info.type_equivs, info._domains);
  json["scope_says"] = NamesToJson(info.type_equivs, info._domains, false);
  json["instance_names"] = info.inst_type_equivs
                               ? NamesToJson(*info.inst_type_equivs, info._inst_domains)
                               : ordered_json::array();
  ordered_json& scans = json["scans"] = ordered_json::array();
  for (const CMergedScan& scan : ScansOf(info)) {
    scans.push_back({{"scan", scan.scan}, {"file", FileOf(scan.file)}, {"scope", scan.scope}});
  }
  return json;
}

void AddNames(std::string& text, std::string_view heading, const CStrDict& names,
              bool of_variables = true) {
  const std::vector<CNameLine> lines = InSourceOrder(names, of_variables);
  if (lines.empty()) {
    return;
  }
  CTable table({std::string(heading), ">Line", "Kind", "Value"});
  for (const auto& [name, ibytes, alternatives] : lines) {
    std::string shown = Printable(name);
    for (const CAlternative& alternative : alternatives) {
      std::string value = Printable(alternative.value);
      if (!alternative.from.empty()) {
        value += (value.empty() ? "" : "  ") + fmt::format("(in {})", Printable(alternative.from));
      }
      table.AddRow({shown, alternative.line ? std::to_string(*alternative.line) : "",
                    alternative.kind, value});
      shown.clear();
    }
    if (alternatives.empty()) {
      table.AddRow({shown, "", "", ""});
    }
  }
  text += "\n" + table.ToString("  ");
}

std::string ToTable(const CScopeInfo& info) {
  const bool is_module = IsTopLevelModuleScope(info.for_scope);
  const CDefinitionBody definition = ReadDefinition(ReadInfoItem(info.scope_ibytes).body);
  std::string title = is_module ? "module" : KindWords(info.scope_kind);
  if (!is_module) {
    title += " " + Printable(info.for_scope);
    if (!definition.inside.empty() || IsDefKind(info.scope_kind)) {
      title += fmt::format("({})", Printable(ReadableArguments(definition.inside)));
    }
  }
  std::string text = fmt::format("{}\n{}, {}", title, Printable(FileOf(info.loc)),
                                 Counted(ScansOf(info).size(), "scan"));
  text += info.incomplete ? ", incomplete" : "";
  text += info.does_not_exist ? ", does not exist" : "";
  text += "\n";
  AddNames(text, "Name", info.type_equivs);
  AddNames(text, "Scope says", info.type_equivs, false);
  if (info.inst_type_equivs) {
    AddNames(text, "Instance attribute", *info.inst_type_equivs);
  }
  if (info.type_equivs.empty() && (!info.inst_type_equivs || info.inst_type_equivs->empty())) {
    text += "\n  no names\n";
  }
  return text;
}

}  // namespace

int RunShow(const COptions& options) {
  if (!options.resolve.empty()) {
    return RunResolve(options);
  }
  CSession session(options);
  session.AnswerFirst();
  standalone::CEngine& engine = session.Engine();
  const Loc loc = session.OpenFile(options.file);
  std::optional<CExplanation> explanation;
  if (options.explain) {
    explanation.emplace(engine, loc, options.scope);
  }
  const scopeinfo::CScopeInfoPtr info = engine.Ask(loc, options.scope, session.Between());
  session.ThrowIfNotScanned(loc);
  if (session.FilesScanned() != 0) {
    Complain(fmt::format("{} not in the database as they are now; scanned for this answer",
                         Counted(session.FilesScanned(), "file")));
  }
  if (explanation) {
    explanation->NoteAnswer(info);
  }
  if (info == nullptr) {
    const TextSet names = engine.Cache().GetAllScopeNames(loc);
    ThrowUnknownScope(options, {names.begin(), names.end()});
  }
  if (options.json) {
    ordered_json json = ToJson(*info, session);
    if (explanation) {
      json["explanation"] = explanation->ToJson();
    }
    WriteJson(json);
  } else {
    Write(ToTable(*info) + (explanation ? "\n" + explanation->ToText() : ""));
  }
  session.Finish();
  return kExitOk;
}

}  // namespace pysource::tools
