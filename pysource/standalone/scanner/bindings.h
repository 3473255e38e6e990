// What a visit has found so far: the scopes of a file, the names in them, and the items of each
// name. Plain tables that refer to each other by number and are used again for the next file, so
// that a name costs no allocation of its own.
#pragma once

#include <array>
#include <cstdint>
#include <deque>
#include <string>
#include <utility>
#include <vector>

#include "pysource/host/hashindex.h"
#include "pysource/host/text.h"

namespace pysource::standalone {

inline constexpr uint32_t kNoIndex = 0xFFFFFFFF;
inline constexpr size_t kMaxNames = 250'000;

enum class ScopeKind : uint8_t {
  kModule,
  kClass,
  kFunction,
  kMethod,
  kClassMethod,
  kStaticMethod,
  kLambda,
  kComprehension,
};

// The scopes without a name of their own.
enum class Unnamed : uint8_t { kLambda, kListComp, kSetComp, kDictComp, kGenExpr };

struct CScopeEntry {
  ScopeKind kind;
  uint32_t parent;                     // kNoIndex for the module
  Text name;                           // dotted
  Bytes ibytes;                        // what the scope itself is
  uint32_t first_argument = kNoIndex;  // name, of a method
  uint32_t first_name = kNoIndex;      // a list through CNameEntry::next_in_scope
  uint32_t last_name = kNoIndex;
  std::array<uint32_t, 5> unnamed_count{};  // scopes without a name in it so far
};

// A name of a scope; or an attribute that is set in it, under its dotted text ("self.x").
struct CNameEntry {
  TextView name;
  uint32_t scope;
  uint32_t next_in_scope = kNoIndex;
  uint32_t first_item = kNoIndex;
  uint32_t last_item = kNoIndex;
  uint32_t item_count = 0;
  uint32_t item_bytes = 0;  // of all items, without separators
  // The last binding: its first item, and how many it has. An item is told once in each binding.
  uint32_t binding_item = kNoIndex;
  uint32_t binding_count = 0;
  bool binding_has_value = false;  // more than lines
  uint32_t definitions = 0;        // functions and classes of that name so far
  uint32_t domain = kNoIndex;
  bool is_attribute = false;
  bool is_global = false;
  uint32_t global_twin = kNoIndex;  // of a name declared global: that of the module, once bound
  bool is_nonlocal = false;
  bool is_import = false;
};

class CBindings {
 public:
  // Forgets the last file and makes the module scope, number 0.
  void Reset();

  // Whether there are so many names that no more should be added: twice as many as 16 MiB of usual
  // code have, whose records take some 150 MB.
  bool IsFull() const { return _fNames.size() >= kMaxNames; }

  // ---- Scopes

  // The scope of the `index`-th definition (from 1) of `leaf` in `parent`.
  uint32_t MakeScope(ScopeKind kind, uint32_t parent, TextView leaf, uint32_t index);
  uint32_t MakeUnnamedScope(Unnamed which, ScopeKind kind, uint32_t parent);
  CScopeEntry& Scope(uint32_t scope) { return _fScopes[scope]; }
  const CScopeEntry& Scope(uint32_t scope) const { return _fScopes[scope]; }
  uint32_t ScopeCount() const { return static_cast<uint32_t>(_fScopes.size()); }

  // ---- Names

  // The name, made if it is new. `name` must stay as long as the bindings (see Keep).
  uint32_t GetName(uint32_t scope, TextView name, bool is_attribute = false);
  // The name, or kNoIndex.
  uint32_t FindName(uint32_t scope, TextView name) const;
  CNameEntry& Name(uint32_t name) { return _fNames[name]; }
  const CNameEntry& Name(uint32_t name) const { return _fNames[name]; }
  // Keeps a text that is no part of the source.
  TextView Keep(Text text) { return _fKept.emplace_back(std::move(text)); }

  // ---- Items. One is made by appending to ItemText() and then taking what was appended. The line
  // of a further binding begins a new run of items; one that its run has already, and an empty one,
  // is dropped. What a name that is declared global takes, the module's name takes as well.

  Bytes& ItemText() { return _fText; }
  uint32_t BeginItem(BytesView prefix) {
    const auto begin = static_cast<uint32_t>(_fText.size());
    _fText += prefix;
    return begin;
  }
  void EndItem(uint32_t name, uint32_t begin);
  void AddItem(uint32_t name, BytesView prefix, BytesView body = {}) {
    const uint32_t begin = BeginItem(prefix);
    _fText += body;
    EndItem(name, begin);
  }
  // `number` in decimal after the prefix.
  void AddNumber(uint32_t name, BytesView prefix, size_t number);

  template <class Visit>
  void ForEachItem(const CNameEntry& name, Visit&& visit) const {
    for (uint32_t i = name.first_item; i != kNoIndex; i = _fItems[i].next) {
      visit(TextOf(_fItems[i]));
    }
  }

  // ---- Domains: for each name that has one, its items joined with ";".
  std::vector<Bytes>& Domains() { return _fDomains; }
  const std::vector<Bytes>& Domains() const { return _fDomains; }

  // ---- "from m import *": which scope, which module.
  struct CStarImport {
    uint32_t scope;
    TextView module;
  };
  std::vector<CStarImport>& StarImports() { return _fStarImports; }
  const std::vector<CStarImport>& StarImports() const { return _fStarImports; }

  // ---- Imports, in the order of the source. The query of imports (CInfoCache::GetAllImports) does
  // not find every one of them under the name that it binds.
  // The last item of the name is an import, in that line.
  void NoteImport(uint32_t name, size_t line) {
    _fImports.push_back({name, _fNames[name].last_item, line});
  }
  // To be called after the last item: puts those that would be missed under kImportName.
  void TellMissedImports();

 private:
  struct CItem {
    uint32_t begin;  // in _fText
    uint32_t size;
    uint32_t next;  // of the same name
  };

  struct CImport {
    uint32_t name;
    uint32_t item;
    size_t line;
  };

  BytesView TextOf(const CItem& item) const {
    return BytesView(_fText).substr(item.begin, item.size);
  }
  bool BindingHasItem(const CNameEntry& entry, BytesView text) const;
  void AddToGlobal(uint32_t name, uint32_t begin, uint32_t size);

  std::vector<CScopeEntry> _fScopes;
  std::vector<CNameEntry> _fNames;
  CHashIndex _fNameIndex;  // by scope and name
  std::vector<CItem> _fItems;
  std::vector<uint32_t> _fItemBindings;  // which binding the item is of, for _fItemIndex
  CHashIndex _fItemIndex;                // by binding and text, of bindings with many items
  Bytes _fText;
  std::deque<Text> _fKept;
  std::vector<Bytes> _fDomains;
  std::vector<CStarImport> _fStarImports;
  std::vector<CImport> _fImports;
};

}  // namespace pysource::standalone
