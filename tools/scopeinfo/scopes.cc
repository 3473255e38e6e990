// scopeinfo scopes: the tree of the scopes of a file.
#include <fmt/format.h>

#include <algorithm>
#include <climits>
#include <string>
#include <tuple>
#include <unordered_map>
#include <utility>
#include <vector>

#include "pysource/host/symbolinfo/bodies.h"
#include "pysource/host/symbolinfo/items.h"
#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "tools/scopeinfo/commands.h"
#include "tools/scopeinfo/describe.h"
#include "tools/scopeinfo/output.h"
#include "tools/scopeinfo/session.h"

namespace pysource::tools {
namespace {

using nlohmann::ordered_json;

struct CNode {
  Text scope;
  std::string kind;
  Text arguments;  // of a definition, or the bases of a class
  bool has_arguments = false;
  size_t names = 0;
  int line = INT_MAX;  // INT_MAX: not known
  std::vector<size_t> children;
};

class CTree {
 public:
  explicit CTree(const std::vector<std::pair<Text, scopeinfo::CScopeInfoPtr>>& infos) {
    for (const auto& [name, info] : infos) {
      // A scope of which only others have something to say is none of this file.
      if (info != nullptr) {
        AddNode(*info);
      }
    }
    for (size_t i = 0; i < _fNodes.size(); ++i) {
      const auto line = _fLines.find(_fNodes[i].scope);
      _fNodes[i].line = line != _fLines.end() ? line->second : _fNodes[i].line;
      // An ancestor is always there, but for the module itself.
      auto parent = ParentScopeName(_fNodes[i].scope);
      while (parent && !_fByScope.contains(Text(*parent))) {
        parent = ParentScopeName(*parent);
      }
      (parent ? _fNodes[_fByScope.at(Text(*parent))].children : _fTop).push_back(i);
    }
    Sort(_fTop);
    for (CNode& node : _fNodes) {
      Sort(node.children);
    }
  }

  // Calls `visit` with each node, in order, its depth and whether it is the last of its parent.
  // Goes without recursion: source can be nested as deep as its author likes.
  template <class Visit>
  void Walk(Visit visit) const {
    struct CStep {
      size_t node;
      size_t depth;
      bool is_last;
    };
    std::vector<CStep> waiting;
    const auto push = [&waiting](const std::vector<size_t>& nodes, size_t depth) {
      for (size_t i = nodes.size(); i-- > 0;) {
        waiting.push_back({nodes[i], depth, i + 1 == nodes.size()});
      }
    };
    push(_fTop, 0);
    while (!waiting.empty()) {
      const CStep step = waiting.back();
      waiting.pop_back();
      visit(_fNodes[step.node], step.depth, step.is_last);
      push(_fNodes[step.node].children, step.depth + 1);
    }
  }

 private:
  void AddNode(const scopeinfo::CScopeInfo& info) {
    CNode node;
    node.scope = info.for_scope;
    node.kind = KindWords(info.scope_kind);
    node.names = info.type_equivs.size();
    const CInfoItem opening = ReadInfoItem(info.scope_ibytes);
    if (OpensScope(info.scope_kind)) {
      node.arguments = ReadDefinition(opening.body).inside;
      node.has_arguments = !node.arguments.empty() || IsDefKind(info.scope_kind);
    } else if (!IsTopLevelModuleScope(info.for_scope)) {
      // "<lambda>" says what it is; where it is, its info bytes may.
      node.kind = "expression";
      node.line = opening.line.value_or(INT_MAX);
    }
    _fByScope.emplace(node.scope, _fNodes.size());
    _fNodes.push_back(std::move(node));
    // Where the scopes inside are opened.
    for (const auto& [name, ibytes] : info.type_equivs) {
      for (const CInfoItem& item : ItemsOf(ibytes)) {
        if (OpensScope(item.kind)) {
          _fLines.emplace(ReadDefinition(item.body).scope, item.line.value_or(INT_MAX));
        }
      }
    }
  }

  void Sort(std::vector<size_t>& nodes) const {
    std::sort(nodes.begin(), nodes.end(), [this](size_t a, size_t b) {
      return std::tie(_fNodes[a].line, _fNodes[a].scope) <
             std::tie(_fNodes[b].line, _fNodes[b].scope);
    });
  }

  std::vector<CNode> _fNodes;
  std::unordered_map<Text, size_t> _fByScope;
  std::unordered_map<Text, int> _fLines;  // from scope to the line of its definition
  std::vector<size_t> _fTop;
};

ordered_json ToJson(const CTree& tree) {
  ordered_json scopes = ordered_json::array();
  tree.Walk([&scopes](const CNode& node, size_t depth, bool /*is_last*/) {
    ordered_json entry{{"scope", node.scope}, {"kind", node.kind}, {"depth", depth}};
    entry["line"] = node.line == INT_MAX ? ordered_json() : ordered_json(node.line);
    entry["names"] = node.names;
    if (node.has_arguments) {
      entry["arguments"] = node.arguments;
    }
    scopes.push_back(std::move(entry));
  });
  return scopes;
}

std::string ToTable(const CTree& tree, const std::string& path) {
  CTable table({"Scope", "Kind", ">Line", ">Names"});
  std::vector<bool> ends;  // for each depth, whether the branch there ended
  tree.Walk([&](const CNode& node, size_t depth, bool is_last) {
    std::string label;
    for (size_t i = 1; i < depth; ++i) {
      label += ends[i] ? "   " : "│  ";
    }
    ends.resize(depth + 1);
    ends[depth] = is_last;
    label += depth == 0 ? "" : is_last ? "└─ " : "├─ ";
    label +=
        Printable(IsTopLevelModuleScope(node.scope) ? TextView(path)
                                                    : ParentAndLeafScopeNames(node.scope).second);
    if (node.has_arguments) {
      label += "(" + Printable(ReadableArguments(node.arguments)) + ")";
    }
    table.AddRow({label, node.kind, node.line == INT_MAX ? "" : std::to_string(node.line),
                  std::to_string(node.names)});
  });
  return table.ToString();
}

}  // namespace

int RunScopes(const COptions& options) {
  CSession session(options);
  session.AnswerFirst();
  const Loc loc = session.OpenFile(options.file);
  const auto infos = session.Engine().AskFile(loc, session.Between());
  session.ThrowIfNotScanned(loc);
  const CTree tree(infos);
  if (options.json) {
    ordered_json json;
    json["file"] = PathForLocation(loc).value_or(options.file);
    json["scopes"] = ToJson(tree);
    WriteJson(json);
  } else {
    Write(ToTable(tree, options.file));
  }
  session.Finish();
  return kExitOk;
}

}  // namespace pysource::tools
