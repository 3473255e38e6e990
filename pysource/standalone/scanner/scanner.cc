#include "pysource/standalone/scanner/scanner.h"

#include <algorithm>
#include <optional>
#include <string>
#include <utility>

#include "pysource/host/errors.h"
#include "pysource/host/symbolinfo/bodies.h"
#include "pysource/host/symbolinfo/infobytes.h"
#include "pysource/host/symbolinfo/items.h"
#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/standalone/scanner/bindings.h"
#include "pysource/standalone/scanner/itemtext.h"
#include "pysource/standalone/scanner/sourcefile.h"
#include "pysource/standalone/scanner/sourceguard.h"
#include "pysource/standalone/scanner/sourcemender.h"
#include "pysource/standalone/scanner/syntaxtree.h"
#include "pysource/standalone/scanner/visitor.h"

// What the scanner says, and in which words (":s3" and the like are told in host/symbolinfo.h).
//
// Scopes. The module "", classes, functions, and the scopes without a name: "<lambda>",
// "<listcomp>", "<setcomp>", "<dictcomp>", "<genexpr>". A comprehension has a scope of its own, as
// its targets are not seen outside; its first iterable is evaluated outside, and so are the
// defaults, annotations, bases and decorators of a definition. scope_ibytes is the item that the
// definition gives its name, for a comprehension ":w" and its line; empty for the module.
//
// Names (kNamesScan). Each binding adds its line and what it says to what the name has already, in
// the order of the source; what is declared global is the module's name as well:
//
//   x = 3                    :s1;:lint                what is told of a value: see AddValue
//   x: int = 3               :s1;:h1;:tint;:lint
//   x: int                   :h1;:tint
//   x += 1                   :s1;:ex+1
//   a, b = f()               a: :s1;:ef()[0]          pairwise where both sides are sequences
//   a, *b = f()              b: :s1;:llist
//   for x in xs              :s1;xs[*]
//   with f() as x            :s1;:Cf
//   except (A, B) as x       :s1;:CA;:CB              an instance, which is what calling makes
//   (x := 3)                 :s1;:w1;:lint            in the scope around comprehensions
//   [... for x in xs]        :s1;:w1;xs[*]
//   case C() as x            :s1                      and all other captures
//   del x                    :g1                      makes the name one of this scope
//   global x; nonlocal x     :G; :n                   and then what is bound through it; the module's
//                                                     x takes it with the scope: :s3;:Sf y
//   type X = int             :s1;:tint
//   import a.b               a: :s1;:ia.b
//   import a.b as x          :s1;:aa.b x              and import: :s1;:ia.b
//   from .m import a as x    :s1;:f.m a               and import: the same, where x is a class too
//   from m import *          *: :s1;:fm *             under the name "*"; no name of m is listed
//   @d(1) def f(x, *, y=1)   f: :s1;:dd;:Ff(x,*,y=)   :m in a class, :u for its static and class methods
//   class C(B, metaclass=M)  :s1;:cC(B,metaclass=M)
//   argument x: int = 3      :s1;:A0;:h1;:tint;:lint  :@ after the position of a method's first one;
//                                                     *x is an :ltuple, **x an :ldict
//   type parameter T: int    :s1;:TTypeVar;:tint      in the scope of the function or class
//   ... -> int               return: :h1;:tint        in the function; and likewise
//   return 3; lambda: 3      return: :w1;:lint
//   yield 3; yield from xs   yield: :w1;:lint; :w1;xs[*]
//
// "*", "return", "yield" and "import" cannot be names of variables, so a reader that wants these
// leaves them out (IsVariableName). Private names (__x in a class) are written as in the source.
//
// Attributes (kAttrsScan). An attribute set on the first argument of a method becomes instance
// information of its class, on that of a class method information of the class itself; set on what
// an import binds, and if that is a module, information of the module's file. Functions and lambdas
// within the method count too, for as long as they do not bind the name themselves. Items mean what
// they mean in the scope that was scanned, so those that hold names are prefixed with it (":SC.m
// x"), for another file with the file as well; lines need the file only. A record for another file
// has no disk time: it says nothing about the content of that file.

namespace pysource::standalone {
namespace {

using scopeinfo::CScopeInfo;
using scopeinfo::CScopeInfoKey;
using scopeinfo::CScopeInfoPtr;

// Beyond these sizes nothing is tried that takes another parse, and nothing is mended at all: nobody
// types so much.
constexpr size_t kMaxTriedSource = size_t{1} << 20;
constexpr size_t kMaxMendedSource = size_t{4} << 20;

constexpr auto kGone = static_cast<DiskTime>(scopeinfo::kFileDoesNotExistMtime);

// What the import `text` binds its name to, for a use of that name as `object` ("os.path"): the
// module is `object` itself or what it begins with.
std::optional<Text> ModuleOf(BytesView text, TextView object) {
  const CInfoItem item = ReadInfoItem(text);
  const auto import = ReadImport(item.kind, item.body);
  if (!import) {
    return std::nullopt;
  }
  if (item.kind == kImportKind) {
    return Text(object);  // "import a.b" binds a
  }
  Text module(import->module);
  if (item.kind == kFromImportKind) {
    module += module.ends_with('.') ? "" : ".";
    module += import->name;
  }
  const size_t dot = object.find('.');
  module += dot == TextView::npos ? TextView() : object.substr(dot);
  return module;
}

}  // namespace

class CScanner::CImpl {
 public:
  CImpl(const CImportResolver& resolver, const std::atomic<size_t>* stop)
      : _fResolver(resolver), _fStop(stop) {
    _fTree.SetStopFlag(stop);
  }

  CFileScan Scan(const CScanRequest& request);

 private:
  // An attribute that a scope sets, and whose it is.
  struct CResolved {
    uint32_t scanned_scope;
    Loc for_loc;
    uint32_t for_scope;   // of this file; kNoIndex for the module scope of another one
    uint32_t home_scope;  // binds the name that the attribute was set on
    bool inst;
    uint32_t name;
    TextView attribute;
  };

  CMendedSource ParseMended(BytesView source);
  CScopeInfoPtr MakeNamesInfo(uint32_t scope);
  void ResolveAttributes();
  void ResolveAttribute(uint32_t name);
  std::vector<CScopeInfoPtr> MakeAttrsInfos(size_t begin, size_t end);
  CScopeInfoPtr MakeAttrsInfo(std::vector<CResolved>::iterator begin,
                              std::vector<CResolved>::iterator end);
  // The name that `scope` sees as `name`, as Python looks it up; kNoIndex when no scope of the file
  // binds it.
  uint32_t Lookup(uint32_t scope, TextView name) const;
  CScopesSeenPtr MakeScopesSeen(uint32_t scope) const;
  std::pair<Loc, DiskTime> Resolve(TextView module) const;
  void AddResolution(TextView module, Loc found, CScopesSeenDict& seen) const;

  const CImportResolver& _fResolver;
  const std::atomic<size_t>* const _fStop;
  const CScanRequest* _fRequest = nullptr;
  bool _fIncomplete = false;
  bool _fWasParsed = false;  // the parser came to an end
  Bytes _fCopy;              // of a source that was not fit for the parser
  Bytes _fMended;            // of one that somebody is typing
  CSyntaxTree _fTree;
  CBindings _fBindings;
  CVisitor _fVisitor;
  std::vector<uint32_t> _fNames;  // scratch: of one scope
  std::vector<CResolved> _fResolved;
  // The modules that scopes set attributes on, in the order of the scopes.
  struct CModuleSetOn {
    uint32_t scanned_scope;
    Text module;
    Loc found;  // absent when there is no such file
  };
  std::vector<CModuleSetOn> _fModulesSetOn;
  size_t _fNextSetOn = 0;  // of the scope whose record is made next
  Bytes _fValue;           // scratch
};

CFileScan CScanner::CImpl::Scan(const CScanRequest& request) {
  if (request.source.size() > kMostSourceBytes) {
    throw CValueError(request.loc.Repr() + ": is larger than " +
                      std::to_string(kMostSourceBytes >> 20) + " MiB");
  }
  _fRequest = &request;
  const BytesView source = GuardSource(request.source, _fCopy);
  // What was given up for lack of time is not the last word on this content.
  const CMendedSource mended = ParseMended(source);
  _fIncomplete = !_fWasParsed || request.incomplete;
  if (_fStop != nullptr && *_fStop != 0) {
    throw CValueError(request.loc.Repr() + ": its scan was stopped");
  }
  _fVisitor.Visit(_fTree, _fBindings);
  ResolveAttributes();

  CFileScan result;
  result.error_count = _fTree.ErrorCount() + mended.count + (_fBindings.IsFull() ? 1 : 0);
  result.first_error_line = _fTree.FirstErrorLine();
  if (mended.count != 0) {
    const size_t line = size_t{mended.first_row} + 1;
    result.first_error_line =
        result.first_error_line == 0 ? line : std::min(line, result.first_error_line);
  }
  result.results.reserve(size_t{_fBindings.ScopeCount()} * std::size(kScans));
  size_t resolved = 0;
  for (uint32_t scope = 0; scope < _fBindings.ScopeCount(); ++scope) {
    const Text& name = _fBindings.Scope(scope).name;
    CScanResult& names = result.results.emplace_back(CScanResult{name, Text(kNamesScan), {}});
    names.infos.push_back(MakeNamesInfo(scope));
    size_t end = resolved;
    while (end < _fResolved.size() && _fResolved[end].scanned_scope == scope) {
      ++end;
    }
    result.results.push_back(CScanResult{name, Text(kAttrsScan), MakeAttrsInfos(resolved, end)});
    resolved = end;
  }
  _fResolved.clear();
  _fRequest = nullptr;
  return result;
}

// Parses what is left of the source when what somebody is typing is mended. The parser finds errors
// that no look at words and brackets finds; then the source is mended with that knowledge.
CMendedSource CScanner::CImpl::ParseMended(BytesView source) {
  if (source.size() > kMaxMendedSource) {
    _fWasParsed = _fTree.Parse(source, _fRequest->incomplete);
    return CMendedSource{source};
  }
  CMendedSource mended = MendSource(source, _fMended);
  _fWasParsed = _fTree.Parse(mended.source, _fRequest->incomplete);
  const size_t errors = _fTree.ErrorCount();
  if (mended.count != 0 || errors == 0 || source.size() > kMaxTriedSource) {
    return mended;
  }
  mended = MendRejectedSource(source, _fMended);
  if (mended.source != source) {
    _fWasParsed = _fTree.Parse(mended.source, _fRequest->incomplete);
    if (_fTree.ErrorCount() <= errors) {
      return mended;
    }
    _fWasParsed = _fTree.Parse(source, _fRequest->incomplete);
  }
  return CMendedSource{source};
}

CScopesSeenPtr CScanner::CImpl::MakeScopesSeen(uint32_t scope) const {
  auto seen = std::make_shared<CScopesSeenDict>();
  seen->Set(CScopeRef{_fRequest->loc, _fBindings.Scope(scope).name}, _fRequest->disk_mtime);
  return seen;
}

// The file of the module and its time. One that has gone since the resolver found it counts as
// none: otherwise nothing would say that the scan is out of date when it comes back.
std::pair<Loc, DiskTime> CScanner::CImpl::Resolve(TextView module) const {
  const Loc loc = _fResolver.Resolve(_fRequest->loc, module);
  const DiskTime time = loc ? _fResolver.GetDiskTime(loc) : kGone;
  return {time == kGone ? nullptr : loc, time};
}

// A file that comes into being changes what an import means, and so does a folder that becomes a
// package or ceases to be one.
void CScanner::CImpl::AddResolution(TextView module, Loc found, CScopesSeenDict& seen) const {
  for (const auto& [loc, time] : _fResolver.RestsOn(_fRequest->loc, module, found)) {
    seen.Set(CScopeRef{loc, Text(kModuleScopeName)}, time);
  }
}

// One block of memory for all of the record: its size is known.
CScopeInfoPtr CScanner::CImpl::MakeNamesInfo(uint32_t scope) {
  const CScopeEntry& entry = _fBindings.Scope(scope);
  _fNames.clear();
  size_t bytes = entry.ibytes.size();
  size_t domain_count = 0;
  for (uint32_t i = entry.first_name; i != kNoIndex; i = _fBindings.Name(i).next_in_scope) {
    const CNameEntry& name = _fBindings.Name(i);
    if (name.is_attribute || name.item_count == 0) {
      continue;
    }
    _fNames.push_back(i);
    bytes += name.name.size() + name.item_bytes + name.item_count - 1;
    if (name.domain != kNoIndex) {
      ++domain_count;
      bytes += name.name.size() + _fBindings.Domains()[name.domain].size();
    }
  }
  // In ascending order a dictionary needs no table to be searched.
  std::sort(_fNames.begin(), _fNames.end(), [&](uint32_t a, uint32_t b) {
    return _fBindings.Name(a).name < _fBindings.Name(b).name;
  });

  CArena arena(bytes + (_fNames.size() + domain_count) * sizeof(CStrDict::Item) +
               2 * alignof(CStrDict::Item));
  CStrDict names(arena, _fNames.size());
  std::optional<CStrDict> domains;
  if (domain_count != 0) {
    domains.emplace(arena, domain_count);
  }
  auto info = std::make_shared<CScopeInfo>(
      CScopeInfoKey(_fRequest->loc, entry.name, kNamesScan, _fRequest->loc, entry.name), arena,
      arena.Store(entry.ibytes), _fRequest->disk_mtime, _fIncomplete, false);
  for (const uint32_t i : _fNames) {
    const CNameEntry& name = _fBindings.Name(i);
    const size_t size = name.item_bytes + name.item_count - 1;
    auto* const value = static_cast<char*>(arena.Allocate(size, 1));
    char* at = value;
    _fBindings.ForEachItem(name, [&](BytesView item) {
      if (at != value) {
        *at++ = kInfoBytesSep;
      }
      at = std::copy(item.begin(), item.end(), at);
    });
    const TextView stored = arena.Store(name.name);
    names.SetStored(stored, BytesView(value, size));
    if (name.domain != kNoIndex) {
      domains->SetStored(stored, arena.Store(_fBindings.Domains()[name.domain]));
    }
  }
  info->type_equivs = std::move(names);
  info->_domains = std::move(domains);
  info->scope_seen_dict = MakeScopesSeen(scope);
  for (const CBindings::CStarImport& star : _fBindings.StarImports()) {
    if (star.scope != scope) {
      continue;
    }
    const auto [loc, time] = Resolve(star.module);
    if (loc) {
      info->scope_seen_dict->Set(CScopeRef{loc, Text(kModuleScopeName)}, time);
    }
    AddResolution(star.module, loc, *info->scope_seen_dict);
  }
  // What the scope's other scan says of other files: it may have no record to note this in, when
  // there is no such file. Whoever repeats this scan repeats that one too.
  for (; _fNextSetOn < _fModulesSetOn.size(); ++_fNextSetOn) {
    const CModuleSetOn& set_on = _fModulesSetOn[_fNextSetOn];
    if (set_on.scanned_scope != scope) {
      break;
    }
    AddResolution(set_on.module, set_on.found, *info->scope_seen_dict);
  }
  info->FinishedBuilding();
  return info;
}

// ---- Attributes

uint32_t CScanner::CImpl::Lookup(uint32_t scope, TextView name) const {
  for (uint32_t at = scope; at != kNoIndex; at = _fBindings.Scope(at).parent) {
    // The names of a class are not seen in its functions.
    if (at != scope && _fBindings.Scope(at).kind == ScopeKind::kClass) {
      continue;
    }
    const uint32_t found = _fBindings.FindName(at, name);
    if (found == kNoIndex) {
      continue;
    }
    if (_fBindings.Name(found).is_global) {
      return at == 0 ? found : _fBindings.FindName(0, name);
    }
    if (!_fBindings.Name(found).is_nonlocal) {
      return found;
    }
  }
  return kNoIndex;
}

void CScanner::CImpl::ResolveAttributes() {
  _fResolved.clear();
  _fModulesSetOn.clear();
  _fNextSetOn = 0;
  for (uint32_t scope = 0; scope < _fBindings.ScopeCount(); ++scope) {
    for (uint32_t i = _fBindings.Scope(scope).first_name; i != kNoIndex;
         i = _fBindings.Name(i).next_in_scope) {
      if (_fBindings.Name(i).is_attribute) {
        ResolveAttribute(i);
      }
    }
  }
}

void CScanner::CImpl::ResolveAttribute(uint32_t name) {
  const CNameEntry& entry = _fBindings.Name(name);
  const size_t last_dot = entry.name.rfind('.');
  const TextView object = entry.name.substr(0, last_dot);
  const TextView attribute = entry.name.substr(last_dot + 1);
  const TextView root = object.substr(0, object.find('.'));
  const uint32_t found = Lookup(entry.scope, root);
  if (found == kNoIndex || attribute.empty()) {
    return;
  }
  const uint32_t home = _fBindings.Name(found).scope;
  if (_fBindings.Scope(home).first_argument == found) {
    if (root.size() == object.size()) {
      _fResolved.push_back({entry.scope, _fRequest->loc, _fBindings.Scope(home).parent, home,
                            _fBindings.Scope(home).kind == ScopeKind::kMethod, name, attribute});
    }
    return;
  }
  if (!_fBindings.Name(found).is_import) {
    return;
  }
  // A name can be bound by several imports; each module takes the attribute once.
  const size_t begin = _fResolved.size();
  _fBindings.ForEachItem(_fBindings.Name(found), [&](BytesView item) {
    const std::optional<Text> module = ModuleOf(item, object);
    if (!module) {
      return;
    }
    if (_fModulesSetOn.empty() || _fModulesSetOn.back().scanned_scope != entry.scope ||
        _fModulesSetOn.back().module != *module) {
      _fModulesSetOn.push_back({entry.scope, *module, Resolve(*module).first});
    }
    const Loc loc = _fModulesSetOn.back().found;
    const bool is_known =
        std::any_of(_fResolved.begin() + static_cast<ptrdiff_t>(begin), _fResolved.end(),
                    [&](const CResolved& r) { return r.for_loc == loc; });
    if (loc && !is_known) {
      const uint32_t for_scope = loc == _fRequest->loc ? 0 : kNoIndex;
      _fResolved.push_back({entry.scope, loc, for_scope, home, false, name, attribute});
    }
  });
}

std::vector<CScopeInfoPtr> CScanner::CImpl::MakeAttrsInfos(size_t begin, size_t end) {
  std::vector<CScopeInfoPtr> infos;
  const auto first = _fResolved.begin() + static_cast<ptrdiff_t>(begin);
  const auto last = _fResolved.begin() + static_cast<ptrdiff_t>(end);
  // One record for each scope that is written about, its attributes side by side.
  std::stable_sort(first, last, [](const CResolved& a, const CResolved& b) {
    if (!(a.for_loc == b.for_loc)) {
      return a.for_loc < b.for_loc;
    }
    if (a.for_scope != b.for_scope) {
      return a.for_scope < b.for_scope;
    }
    return a.inst != b.inst ? a.inst < b.inst : a.attribute < b.attribute;
  });
  for (auto at = first; at != last;) {
    const auto next = std::find_if(at, last, [&](const CResolved& r) {
      return !(r.for_loc == at->for_loc) || r.for_scope != at->for_scope;
    });
    infos.push_back(MakeAttrsInfo(at, next));
    at = next;
  }
  return infos;
}

CScopeInfoPtr CScanner::CImpl::MakeAttrsInfo(std::vector<CResolved>::iterator begin,
                                             std::vector<CResolved>::iterator end) {
  const Text& scanned = _fBindings.Scope(begin->scanned_scope).name;
  const bool is_own = begin->for_loc == _fRequest->loc;
  const TextView for_scope =
      is_own ? TextView(_fBindings.Scope(begin->for_scope).name) : kModuleScopeName;
  const BytesView ibytes =
      is_own ? BytesView(_fBindings.Scope(begin->for_scope).ibytes) : BytesView();
  auto info = std::make_shared<CScopeInfo>(
      CScopeInfoKey(begin->for_loc, for_scope, kAttrsScan, _fRequest->loc, scanned), ibytes,
      is_own ? std::optional<DiskTime>(_fRequest->disk_mtime) : std::nullopt, _fIncomplete);
  info->scope_seen_dict = MakeScopesSeen(begin->scanned_scope);
  for (auto at = begin; at != end;) {
    // The same attribute can be set under several names (a.x and b.x of one module).
    _fValue.clear();
    const auto& first = *at;
    for (; at != end && at->inst == first.inst && at->attribute == first.attribute; ++at) {
      Bytes value;
      _fBindings.ForEachItem(_fBindings.Name(at->name), [&](BytesView item) {
        if (!value.empty()) {
          value += kInfoBytesSep;
        }
        AppendQualified(item, is_own ? Loc() : _fRequest->loc, scanned, value);
      });
      _fValue = _fValue.empty() ? std::move(value) : JoinInfoBytes(_fValue, value);
      info->scope_seen_dict->Set(CScopeRef{_fRequest->loc, _fBindings.Scope(at->home_scope).name},
                                 _fRequest->disk_mtime);
    }
    if (first.inst && !info->inst_type_equivs) {
      info->inst_type_equivs.emplace();
    }
    info->SetInfoBytes(first.attribute, _fValue, first.inst);
  }
  // The class that the attributes are for is not among the scopes seen: that a function is one of
  // its methods stands around the function, not in the class. With it, the class's own record and
  // this one would each make the other stale.
  info->FinishedBuilding();
  return info;
}

// ---- The scanner

CScanner::CScanner(const CImportResolver& resolver, const std::atomic<size_t>* stop)
    : _fImpl(std::make_unique<CImpl>(resolver, stop)) {}
CScanner::~CScanner() = default;

CFileScan CScanner::Scan(const CScanRequest& request) { return _fImpl->Scan(request); }

}  // namespace pysource::standalone
