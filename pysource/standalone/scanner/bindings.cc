#include "pysource/standalone/scanner/bindings.h"

#include <charconv>

#include "pysource/host/hash.h"
#include "pysource/host/symbolinfo/bodies.h"
#include "pysource/host/symbolinfo/infobytes.h"
#include "pysource/host/symbolinfo/items.h"
#include "pysource/host/symbolinfo/kinds.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/standalone/scanner/itemtext.h"

namespace pysource::standalone {
namespace {

// Bindings with more items than this have them in the index; others are compared one by one.
constexpr uint32_t kMostComparedItems = 8;

constexpr std::array<TextView, 5> kUnnamedLeaves{"<lambda>", "<listcomp>", "<setcomp>",
                                                 "<dictcomp>", "<genexpr>"};

uint64_t HashName(uint32_t scope, TextView name) { return CombineHash(scope, HashBytes(name)); }

void AppendNumber(Bytes& out, size_t number) {
  std::array<char, 24> digits;
  const auto end = std::to_chars(digits.data(), digits.data() + digits.size(), number).ptr;
  out.append(digits.data(), end);
}

}  // namespace

void CBindings::Reset() {
  _fScopes.clear();
  _fNames.clear();
  _fNameIndex.Reuse();
  _fItems.clear();
  _fItemBindings.clear();
  _fItemIndex.Reuse();
  _fText.clear();
  _fKept.clear();
  _fDomains.clear();
  _fStarImports.clear();
  _fImports.clear();
  _fScopes.push_back(CScopeEntry{ScopeKind::kModule, kNoIndex, Text(kModuleScopeName), Bytes()});
}

uint32_t CBindings::MakeScope(ScopeKind kind, uint32_t parent, TextView leaf, uint32_t index) {
  const Text& parent_name = _fScopes[parent].name;
  Text name;
  name.reserve(parent_name.size() + leaf.size() + 4);
  if (!parent_name.empty()) {
    name += parent_name;
    name += '.';
  }
  name += leaf;
  if (index > 1) {
    name += kScopeIndexSep;
    AppendNumber(name, index);
  }
  _fScopes.push_back(CScopeEntry{kind, parent, std::move(name), Bytes()});
  return static_cast<uint32_t>(_fScopes.size() - 1);
}

uint32_t CBindings::MakeUnnamedScope(Unnamed which, ScopeKind kind, uint32_t parent) {
  const auto number = static_cast<size_t>(which);
  const uint32_t index = ++_fScopes[parent].unnamed_count[number];
  return MakeScope(kind, parent, kUnnamedLeaves[number], index);
}

uint32_t CBindings::FindName(uint32_t scope, TextView name) const {
  return _fNameIndex.Find(HashName(scope, name), [&](uint32_t i) {
    return _fNames[i].scope == scope && _fNames[i].name == name;
  });
}

uint32_t CBindings::GetName(uint32_t scope, TextView name, bool is_attribute) {
  const uint32_t known = FindName(scope, name);
  if (known != kNoIndex) {
    return known;
  }
  const auto made = static_cast<uint32_t>(_fNames.size());
  CNameEntry& entry = _fNames.emplace_back(CNameEntry{name, scope});
  entry.is_attribute = is_attribute;
  _fNameIndex.Insert(HashName(scope, name), made);
  CScopeEntry& owner = _fScopes[scope];
  (owner.last_name == kNoIndex ? owner.first_name : _fNames[owner.last_name].next_in_scope) = made;
  owner.last_name = made;
  return made;
}

void CBindings::AddNumber(uint32_t name, BytesView prefix, size_t number) {
  const uint32_t begin = BeginItem(prefix);
  AppendNumber(_fText, number);
  EndItem(name, begin);
}

bool CBindings::BindingHasItem(const CNameEntry& entry, BytesView text) const {
  if (entry.binding_count > kMostComparedItems) {
    return _fItemIndex.Find(HashName(entry.binding_item, text), [&](uint32_t i) {
      return _fItemBindings[i] == entry.binding_item && TextOf(_fItems[i]) == text;
    }) != CHashIndex::kNone;
  }
  for (uint32_t i = entry.binding_item; i != kNoIndex; i = _fItems[i].next) {
    if (TextOf(_fItems[i]) == text) {
      return true;
    }
  }
  return false;
}

void CBindings::EndItem(uint32_t name, uint32_t begin) {
  const auto size = static_cast<uint32_t>(_fText.size() - begin);
  CNameEntry& entry = _fNames[name];
  if (size == 0 || BindingHasItem(entry, BytesView(_fText).substr(begin, size))) {
    _fText.resize(begin);
    return;
  }
  const auto item = static_cast<uint32_t>(_fItems.size());
  const bool is_line = IsLineKind(GetInfoBytesKind(BytesView(_fText).substr(begin, size)));
  if (entry.binding_item == kNoIndex || (is_line && entry.binding_has_value)) {
    entry.binding_item = item;
    entry.binding_count = 0;
    entry.binding_has_value = false;
  }
  entry.binding_has_value = entry.binding_has_value || !is_line;
  _fItems.push_back(CItem{begin, size, kNoIndex});
  _fItemBindings.push_back(entry.binding_item);
  (entry.last_item == kNoIndex ? entry.first_item : _fItems[entry.last_item].next) = item;
  entry.last_item = item;
  entry.item_bytes += size;
  ++entry.item_count;
  ++entry.binding_count;
  if (entry.binding_count == kMostComparedItems + 1) {
    for (uint32_t i = entry.binding_item; i != kNoIndex; i = _fItems[i].next) {
      _fItemIndex.Insert(HashName(entry.binding_item, TextOf(_fItems[i])), i);
    }
  } else if (entry.binding_count > kMostComparedItems) {
    _fItemIndex.Insert(HashName(entry.binding_item, TextOf(_fItems[item])), item);
  }
  if (entry.is_global && entry.scope != 0) {
    AddToGlobal(name, begin, size);
  }
}

// The module's name is bound by what binds it here, with the words meant as they are here.
void CBindings::AddToGlobal(uint32_t name, uint32_t begin, uint32_t size) {
  const Bytes item = _fText.substr(begin, size);
  if (item == kGlobalPrefix) {
    return;
  }
  uint32_t twin = _fNames[name].global_twin;
  if (twin == kNoIndex) {
    twin = GetName(0, _fNames[name].name);
    _fNames[name].global_twin = twin;
  }
  _fNames[twin].is_import = _fNames[twin].is_import || _fNames[name].is_import;
  const uint32_t at = BeginItem({});
  AppendQualified(item, Loc(), _fScopes[_fNames[name].scope].name, _fText);
  EndItem(twin, at);
}

void CBindings::TellMissedImports() {
  for (const CImport& import : _fImports) {
    Bytes item(TextOf(_fItems[import.item]));
    bool is_missed = false;
    const CInfoItem read = ReadInfoItem(item);
    if (const auto parts = ReadImport(read.kind, read.body); parts && !parts->bound.empty()) {
      is_missed = true;
      item = Bytes(kImportPrefix) + Bytes(parts->module);
    } else {
      // A value in which the mark of a class occurs counts as one of classes alone.
      ForEachItem(_fNames[import.name], [&](BytesView said) {
        is_missed = is_missed || said.find(kClassPrefix) != BytesView::npos;
      });
    }
    if (is_missed) {
      const uint32_t told = GetName(_fNames[import.name].scope, kImportName);
      AddNumber(told, kSetPrefix, import.line);
      AddItem(told, item);
    }
  }
}

}  // namespace pysource::standalone
