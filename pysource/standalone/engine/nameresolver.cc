#include "pysource/standalone/engine/nameresolver.h"

#include <algorithm>
#include <set>
#include <tuple>
#include <utility>

#include "pysource/host/repr.h"
#include "pysource/host/strutils.h"
#include "pysource/host/symbolinfo/bodies.h"
#include "pysource/host/symbolinfo/items.h"
#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/standalone/scanner/importresolver.h"

namespace pysource::standalone {
namespace {

using scopeinfo::CScopeInfo;
using scopeinfo::CScopeInfoPtr;

// Real code takes a dozen steps at most; what takes more is a riddle.
constexpr size_t kMostSteps = 64;
// How often an answer is begun anew because scopes changed while it was worked out.
constexpr int kMostAttempts = 4;

std::string FileOf(Loc loc) { return PathForLocation(loc).value_or(loc->fUrl); }

Text ScopeWord(TextView scope) { return scope.empty() ? Text("the module") : Text(scope); }

// One question, worked out once.
class CSearch {
 public:
  CSearch(CEngine& engine, const std::function<bool()>& between)
      : _fEngine(engine), _fBetween(between) {}

  void Run(const CNameQuestion& question) {
    for (const CBinding& binding : Bindings(question.loc, question.scope, question.name)) {
      Define(binding);
    }
    if (_fResult.definitions.empty() && _fResult.lost.empty()) {
      Lose(question.name + " is not bound in " + FileOf(question.loc) + ", " +
           ScopeWord(question.scope));
    }
  }

  CResolution Result() && { return std::move(_fResult); }
  const CScopeRefSet& ScopesRead() const { return _fScopesRead; }

 private:
  // A name in a dictionary of a record.
  struct CBinding {
    Loc loc;
    Text scope;
    Text name;
    bool inst = false;
    Text via = {};  // the step from the object that was asked for; empty: it is that one's own
  };
  enum class EObject { kModule, kClass, kInstance };
  // What a name can mean, as far as it has attributes.
  struct CObject {
    EObject what;
    Loc loc;
    Text scope;
  };
  // An alternative of a value, and where its words are to be understood.
  struct CItem {
    Kind kind;
    Bytes body;
    std::optional<int> line;
    Loc loc;
    Text scope;
  };

  // Adds a step to the path for as long as it lives.
  class CStep {
   public:
    CStep(CSearch& search, Text step) : _fSearch(search) {
      _fSearch._fPath.push_back(std::move(step));
    }
    ~CStep() { _fSearch._fPath.pop_back(); }
    CStep(const CStep&) = delete;
    CStep& operator=(const CStep&) = delete;

   private:
    CSearch& _fSearch;
  };

  // Sees to it that no binding is followed inside of itself, and that the search ends.
  class CVisit {
   public:
    CVisit(CSearch& search, const CBinding& binding, bool for_objects)
        : _fSearch(search),
          _fPlace(binding.loc->fUrl, binding.scope, binding.name, binding.inst, for_objects) {
      if (_fSearch._fUnderWay.size() >= kMostSteps) {
        _fSearch.Lose("more than " + std::to_string(kMostSteps) + " steps to " + binding.name +
                      " in " + FileOf(binding.loc));
      } else {
        _fIsNew = _fSearch._fUnderWay.insert(_fPlace).second;
        if (!_fIsNew) {
          _fSearch.Lose(binding.name + " in " + FileOf(binding.loc) + " leads back to itself");
        }
      }
    }
    ~CVisit() {
      if (_fIsNew) {
        _fSearch._fUnderWay.erase(_fPlace);
      }
    }
    CVisit(const CVisit&) = delete;
    CVisit& operator=(const CVisit&) = delete;
    explicit operator bool() const { return _fIsNew; }

   private:
    CSearch& _fSearch;
    std::tuple<Text, Text, Text, bool, bool> _fPlace;
    bool _fIsNew = false;
  };

  void Lose(Text where) {
    if (std::find(_fResult.lost.begin(), _fResult.lost.end(), where) == _fResult.lost.end()) {
      _fResult.lost.push_back(std::move(where));
    }
  }

  CScopeInfoPtr Read(Loc loc, TextView scope) {
    _fScopesRead.insert(CScopeRef{loc, Text(scope)});
    return _fEngine.Ask(loc, scope, _fBetween);
  }

  std::vector<CItem> Items(const CBinding& binding) {
    std::vector<CItem> items;
    const CScopeInfoPtr info = Read(binding.loc, binding.scope);
    if (info == nullptr) {
      return items;
    }
    const auto value = info->GetInfoBytes(binding.name, std::nullopt, binding.inst);
    for (const CInfoItem& item : ItemsOf(value.value_or(BytesView()))) {
      items.push_back(
          {item.kind, Bytes(item.body), item.line,
           item.url ? _fEngine.Locations().GetLocation(DecodeUrl(*item.url)) : binding.loc,
           item.scope ? Text(*item.scope) : binding.scope});
    }
    return items;
  }

  // ---- From names to bindings.

  // The bindings of a dotted name, as seen from the scope.
  std::vector<CBinding> Bindings(Loc loc, TextView scope, TextView dotted) {
    const size_t dot = dotted.find('.');
    std::vector<CBinding> bindings = LookUp(loc, scope, dotted.substr(0, dot));
    while (!bindings.empty() && !dotted.empty() && dotted.find('.') != TextView::npos) {
      dotted.remove_prefix(dotted.find('.') + 1);
      const Text attribute(dotted.substr(0, dotted.find('.')));
      std::vector<CBinding> next;
      for (const CBinding& binding : bindings) {
        for (const CObject& object : Objects(binding)) {
          AddBindings(object, attribute, next);
        }
      }
      bindings = std::move(next);
      if (bindings.empty()) {
        Lose("attribute " + attribute + " was not found, from " + FileOf(loc) + ", " +
             ScopeWord(scope));
      }
    }
    return bindings;
  }

  // As Python looks a plain name up: in the scope, in the functions around it, in the module.
  std::vector<CBinding> LookUp(Loc loc, TextView scope, TextView name) {
    std::optional<TextView> at = scope;
    while (at) {
      const bool is_module = IsTopLevelModuleScope(*at);
      const CScopeInfoPtr info = Read(loc, *at);
      const bool is_passed_over =
          info == nullptr || (*at != scope && !is_module && info->scope_kind == kClassKind);
      if (is_module) {
        std::vector<CBinding> bindings;
        AddOfModule(loc, Text(name), bindings);
        return bindings;
      }
      const auto value =
          is_passed_over ? std::nullopt : info->GetInfoBytes(name, std::nullopt, false);
      if (value && HasKind(*value, kGlobalKind)) {
        at = kModuleScopeName;
        continue;
      }
      if (value && !HasKind(*value, kNonlocalKind)) {
        return {{loc, Text(*at), Text(name), false}};
      }
      at = ParentScopeName(*at);
    }
    return {};
  }

  // A name of a module: its own, then those that it takes from others with "*".
  bool AddOfModule(Loc loc, const Text& name, std::vector<CBinding>& bindings) {
    const CScopeInfoPtr info = Read(loc, kModuleScopeName);
    if (info == nullptr || !_fModulesLookedIn.insert({loc->fUrl, name}).second) {
      return false;
    }
    bool found = info->GetInfoBytes(name, std::nullopt, false).has_value();
    if (found) {
      bindings.push_back({loc, Text(kModuleScopeName), name, false});
    } else {
      for (const CItem& item : Items({loc, Text(kModuleScopeName), "*", false})) {
        const auto import = ReadImport(item.kind, item.body);
        if (found || item.kind != kFromImportKind || !import) {
          continue;
        }
        if (const Loc module = Module(item.loc, import->module)) {
          found = AddOfModule(module, name, bindings);
          if (found) {
            bindings.back().via =
                "taken with * by " + FileOf(loc) + " from " + Text(import->module);
          }
        }
      }
    }
    _fModulesLookedIn.erase({loc->fUrl, name});
    return found;
  }

  // An attribute of the object; of a class and its instances that of the first class to have it.
  void AddBindings(const CObject& object, const Text& name, std::vector<CBinding>& bindings) {
    if (object.what == EObject::kModule) {
      if (!AddOfModule(object.loc, name, bindings)) {
        // A module in a package is an attribute of the package.
        if (const Loc module = _fEngine.Resolver().Resolve(object.loc, "." + name);
            module && object.loc->fUrl.find("/__init__.py") != Text::npos) {
          bindings.push_back({module, Text(kModuleScopeName), Text(), false});
        }
      }
      return;
    }
    std::set<std::pair<Text, Text>> seen;
    const size_t first = bindings.size();
    AddOfClass(object, name, seen, bindings);
    for (size_t i = first; i < bindings.size(); ++i) {
      if (bindings[i].scope != object.scope || bindings[i].loc != object.loc) {
        bindings[i].via =
            bindings[i].scope + " is a base class of " + object.scope + " in " + FileOf(object.loc);
      }
    }
  }

  bool AddOfClass(const CObject& object, const Text& name, std::set<std::pair<Text, Text>>& seen,
                  std::vector<CBinding>& bindings) {
    if (!seen.insert({object.loc->fUrl, object.scope}).second || seen.size() > kMostSteps) {
      return false;
    }
    const CScopeInfoPtr info = Read(object.loc, object.scope);
    if (info == nullptr) {
      return false;
    }
    bool found = false;
    // Also through the class itself: its methods speak of their own attributes that way.
    for (const bool inst : {true, false}) {
      if ((inst ? info->inst_type_equivs.has_value() : true) &&
          info->GetInfoBytes(name, std::nullopt, inst)) {
        bindings.push_back({object.loc, object.scope, name, inst});
        found = true;
      }
    }
    if (found) {
      return true;
    }
    for (const CObject& base : Bases(object, *info)) {
      if (AddOfClass({object.what, base.loc, base.scope}, name, seen, bindings)) {
        return true;
      }
    }
    return false;
  }

  std::vector<CObject> Bases(const CObject& object, const CScopeInfo& info) {
    std::vector<CObject> bases;
    const CDefinitionBody body = ReadDefinition(ReadInfoItem(info.scope_ibytes).body);
    const Text around(ParentScopeName(object.scope).value_or(kModuleScopeName));
    ForEachClassArgument(body.inside, [&](const CClassArgument& base) {
      const TextView dotted = DottedPart(base.expression);
      if (dotted.empty() || !base.keyword.empty()) {
        return;
      }
      for (const CBinding& binding : Bindings(object.loc, around, dotted)) {
        for (CObject& found : Objects(binding)) {
          if (found.what == EObject::kClass) {
            bases.push_back(std::move(found));
          }
        }
      }
    });
    return bases;
  }

  Loc Module(Loc from, TextView name) {
    const Loc module = _fEngine.Resolver().Resolve(from, name);
    if (!module) {
      Lose("module " + Text(name) + " was not found from " + FileOf(from));
    }
    return module;
  }

  // ---- From bindings to what they mean.

  // The bindings that an import or an equivalence leads to; absent for an item of another kind.
  std::optional<std::vector<CBinding>> Follow(const CItem& item, const CBinding& binding,
                                              Text& step) {
    const auto import = ReadImport(item.kind, item.body);
    switch (import || item.kind == kPlainEquivKind ? item.kind : Kind{0}) {
      case kImportKind:
      case kImportAsNameKind: {
        TextView name = import->module;
        if (item.kind == kImportKind && binding.name != name) {
          name = name.substr(0, name.find('.'));  // "import a.b" binds a
        }
        step = "imported in " + FileOf(item.loc);
        const Loc module = Module(item.loc, name);
        return module ? std::vector<CBinding>{{module, Text(kModuleScopeName), Text(), false}}
                      : std::vector<CBinding>();
      }
      case kFromImportKind: {
        const Text name(import->module);
        const Text what(import->name);
        step = "imported in " + FileOf(item.loc) + " from " + name;
        std::vector<CBinding> bindings;
        const bool only_dots = name.find_first_not_of('.') == Text::npos;
        const Loc module = _fEngine.Resolver().Resolve(item.loc, name);
        if (module) {
          (void)AddOfModule(module, what, bindings);
        }
        if (bindings.empty()) {
          const Loc below =
              _fEngine.Resolver().Resolve(item.loc, name + (only_dots ? "" : ".") + what);
          if (below) {
            bindings.push_back({below, Text(kModuleScopeName), Text(), false});
          } else {
            Lose(module ? what + " was not found in " + FileOf(module)
                        : "module " + name + " was not found from " + FileOf(item.loc));
          }
        }
        return bindings;
      }
      case kPlainEquivKind:
        if (DottedPart(item.body) != item.body) {
          return std::nullopt;
        }
        step = binding.name + " = " + item.body + " in " + FileOf(item.loc) + ", " +
               ScopeWord(item.scope);
        return Bindings(item.loc, item.scope, item.body);
      default:
        return std::nullopt;
    }
  }

  std::vector<CObject> Objects(const CBinding& binding) {
    if (binding.name.empty()) {
      return {{EObject::kModule, binding.loc, Text(kModuleScopeName)}};
    }
    const CVisit visit(*this, binding, true);
    std::vector<CObject> objects;
    if (!visit) {
      return objects;
    }
    for (const CItem& item : Items(binding)) {
      Text step;
      if (const auto followed = Follow(item, binding, step)) {
        for (const CBinding& next : *followed) {
          for (CObject& object : Objects(next)) {
            objects.push_back(std::move(object));
          }
        }
        continue;
      }
      AddObjects(item, objects);
    }
    return objects;
  }

  void AddObjects(const CItem& item, std::vector<CObject>& objects) {
    switch (item.kind) {
      case kClassKind:
        objects.push_back({EObject::kClass, item.loc, Text(ReadDefinition(item.body).scope)});
        break;
      case kInstanceKind:
        objects.push_back({EObject::kInstance, item.loc, item.body});
        break;
      case kSelfKind:
        if (const auto of_class = ParentScopeName(item.scope)) {
          objects.push_back({EObject::kInstance, item.loc, Text(*of_class)});
        }
        break;
      case kCalledKind:
      case kTypeHintKind:
      case kInferredTypeHintKind: {
        const TextView dotted = DottedPart(item.body);
        if (dotted.empty()) {
          break;
        }
        for (const CBinding& called : Bindings(item.loc, item.scope, dotted)) {
          for (CObject& object : Objects(called)) {
            if (object.what == EObject::kClass) {
              object.what = EObject::kInstance;
              objects.push_back(std::move(object));
            }
          }
        }
        break;
      }
      default:
        break;
    }
  }

  void Define(const CBinding& binding) {
    if (!binding.via.empty()) {
      const CStep kept(*this, binding.via);
      Define({binding.loc, binding.scope, binding.name, binding.inst});
      return;
    }
    if (binding.name.empty()) {
      Add({binding.loc, Text(kModuleScopeName), Text(), false, kModuleKind, Bytes(), 1, _fPath});
      return;
    }
    const CVisit visit(*this, binding, false);
    if (!visit) {
      return;
    }
    std::optional<CItem> unexplained;  // a binding of which nothing better is said
    bool is_explained = false;
    for (const CItem& item : Items(binding)) {
      if (IsLineKind(item.kind)) {
        if (Binds(item.kind) && !unexplained) {
          unexplained = item;
        }
        continue;
      }
      Text step;
      const auto followed = Follow(item, binding, step);
      if (followed && (!followed->empty() || item.kind != kPlainEquivKind)) {
        const CStep kept(*this, std::move(step));
        for (const CBinding& next : *followed) {
          Define(next);
        }
        is_explained = true;
      } else if (Binds(item.kind)) {
        Add({binding.loc, binding.scope, binding.name, binding.inst, item.kind, item.body,
             item.line, _fPath});
        is_explained = true;
      }
    }
    if (!is_explained && unexplained) {
      Add({binding.loc, binding.scope, binding.name, binding.inst, kSetKind, Bytes(),
           unexplained->line, _fPath});
    }
  }

  void Add(CNameDefinition definition) {
    const auto same = [&](const CNameDefinition& known) {
      return known.loc == definition.loc && known.scope == definition.scope &&
             known.name == definition.name && known.inst == definition.inst &&
             known.line == definition.line && known.kind == definition.kind;
    };
    if (std::none_of(_fResult.definitions.begin(), _fResult.definitions.end(), same)) {
      _fResult.definitions.push_back(std::move(definition));
    }
  }

  CEngine& _fEngine;
  const std::function<bool()>& _fBetween;
  CResolution _fResult;
  CScopeRefSet _fScopesRead;
  std::vector<Text> _fPath;
  std::set<std::tuple<Text, Text, Text, bool, bool>> _fUnderWay;
  std::set<std::pair<Text, Text>> _fModulesLookedIn;  // at the moment, each for which name
};

}  // namespace

Text CNameQuestion::Repr() const {
  return FormatPercent("(%r, %r, %r)", {FormatArg(loc), FormatArg(scope), FormatArg(name)});
}

CNameResolver::CNameResolver(CEngine& engine, int64_t most_answers)
    : _fEngine(engine), _fAnswers("CNameResolver._fAnswers", most_answers) {
  _fConnection = engine.Cache().connect(
      kScopesModified, [this](const CInfoCacheBase&, const CChangedDict&) { ++_fChanges; });
}

CNameResolver::~CNameResolver() { _fEngine.Cache().disconnect(_fConnection); }

CResolutionPtr CNameResolver::Resolve(const CNameQuestion& question,
                                      const std::function<bool()>& between) {
  if (const auto found = _fAnswers.LookupInCache(question); found.value != nullptr) {
    return *found.value;
  }
  for (int attempt = 1;; ++attempt) {
    // Scans that are run on the way can change what was read before.
    const uint64_t changes = _fChanges;
    CSearch search(_fEngine, between);
    search.Run(question);
    if (changes != _fChanges && attempt < kMostAttempts) {
      continue;
    }
    const CScopeRefSet scopes = search.ScopesRead();
    auto answer = std::make_shared<const CResolution>(std::move(search).Result());
    if (changes == _fChanges) {
      _fAnswers.AddToCache(question, answer, scopes);
    }
    return answer;
  }
}

}  // namespace pysource::standalone
