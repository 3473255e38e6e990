#include "pysource/scopeinfo/filestate/keysbyaddress.h"

#include <utility>

#include "pysource/host/assertions.h"

namespace pysource::scopeinfo {
namespace {

// The name under which a key without a scanned scope is filed. No scope has this name.
constexpr TextView kNoScope("\0", 1);

}  // namespace

TextView CKeysByScope::NameOf(const CScopeInfoKey& key) const {
  return _fAddress == KeyAddress::kFor ? key.for_scope() : key.scanned_scope().value_or(kNoScope);
}

uint32_t CKeysByScope::PlaceOf(TextView scope_name, uint64_t hash) const {
  return _fPlaces.Find(
      hash, [&](uint32_t place) { return NameOf(*_fSets[place].begin()) == scope_name; });
}

const CScopeInfoKeySet* CKeysByScope::Find(TextView scope_name) const {
  const uint32_t place = PlaceOf(scope_name, HashBytes(scope_name));
  return place == CHashIndex::kNone ? nullptr : &_fSets[place];
}

void CKeysByScope::Add(const CScopeInfoKey& key) {
  const TextView name = NameOf(key);
  const uint64_t hash = HashBytes(name);
  const uint32_t place = PlaceOf(name, hash);
  if (place != CHashIndex::kNone) {
    _fSets[place].insert(key);
    return;
  }
  _fSets.emplace_back().insert(key);
  _fPlaces.Insert(hash, static_cast<uint32_t>(_fSets.size() - 1));
}

void CKeysByScope::Discard(const CScopeInfoKey& key) {
  // A copy: `key` may be the one in the set, and the name must outlive its removal.
  const CScopeInfoKey held = Held(key);
  const TextView name = NameOf(held);
  const uint64_t hash = HashBytes(name);
  const uint32_t place = PlaceOf(name, hash);
  if (place == CHashIndex::kNone || !_fSets[place].erase(held) || !_fSets[place].empty()) {
    return;
  }
  _fPlaces.Erase(hash, place);
  const auto last = static_cast<uint32_t>(_fSets.size() - 1);
  if (place != last) {
    const uint64_t last_hash = HashBytes(NameOf(*_fSets[last].begin()));
    _fPlaces.Erase(last_hash, last);
    _fSets[place] = std::move(_fSets[last]);
    _fPlaces.Insert(last_hash, place);
  }
  _fSets.pop_back();
}

size_t CKeysByScope::MemoryUse() const {
  size_t bytes = _fSets.capacity() * sizeof(CScopeInfoKeySet) + _fPlaces.MemoryUse();
  for (const CScopeInfoKeySet& set : _fSets) {
    bytes += set.MemoryUse();
  }
  return bytes;
}

void CKeysByAddress::Add(const CScopeInfoKey& key) {
  const Loc loc = LocOf(key);
  CKeysByScope* by_scope = _fByLoc.Find(loc);
  if (by_scope == nullptr) {
    by_scope = &_fByLoc.Set(loc, CKeysByScope(_fAddress));
  }
  by_scope->Add(key);
}

void CKeysByAddress::Discard(const CScopeInfoKey& key) {
  const Loc loc = LocOf(key);
  CKeysByScope* const by_scope = _fByLoc.Find(loc);
  if (by_scope == nullptr) {
    return;
  }
  by_scope->Discard(key);
  if (by_scope->empty()) {
    _fByLoc.Erase(loc);
  }
}

void CKeysByAddress::CheckHolds(const CScopeInfoKeySet& all) const {
  size_t count = 0;
  for (const auto& [loc, by_scope] : _fByLoc) {
    Assert(!by_scope.empty(), "a file without keys is in an index");
    for (const CScopeInfoKeySet& set : by_scope.Sets()) {
      Assert(!set.empty(), "a scope without keys is in an index");
      count += set.size();
      for (const CScopeInfoKey& key : set) {
        Assert(all.contains(key), "an index holds a key that its set does not hold");
        Assert(LocOf(key) == loc, "a key is filed under another file");
        const TextView name = _fAddress == KeyAddress::kFor
                                  ? key.for_scope()
                                  : key.scanned_scope().value_or(kNoScope);
        Assert(by_scope.Find(name) == &set, "a key is filed under another scope");
      }
    }
  }
  Assert(count == all.size(), "an index lacks a key of its set");
}

size_t CKeysByAddress::MemoryUse() const {
  size_t bytes = _fByLoc.MemoryUse();
  for (const auto& [loc, by_scope] : _fByLoc) {
    bytes += by_scope.MemoryUse();
  }
  return bytes;
}

}  // namespace pysource::scopeinfo
