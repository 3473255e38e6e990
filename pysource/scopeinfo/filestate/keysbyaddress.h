// Record keys filed under an address: a file, then a scope of it.
#pragma once

#include <cstdint>
#include <vector>

#include "pysource/host/hashindex.h"
#include "pysource/host/location.h"
#include "pysource/host/ordereddict.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/records/scopeinfokeyset.h"

namespace pysource::scopeinfo {

// Which of its two addresses a key is filed under.
enum class KeyAddress { kFor, kScanned };

// The keys of one file, in one set for each scope. The name of a scope is read off any key of its
// set, so it is stored nowhere here; with twenty thousand scopes in five indexes that is most of
// what they would cost. No set is ever empty.
class CKeysByScope {
 public:
  explicit CKeysByScope(KeyAddress address) : _fAddress(address) {}

  // Null when no key is filed under the scope. Good until the next change.
  const CScopeInfoKeySet* Find(TextView scope_name) const;
  // In no order.
  const std::vector<CScopeInfoKeySet>& Sets() const { return _fSets; }
  bool empty() const { return _fSets.empty(); }

  void Add(const CScopeInfoKey& key);
  void Discard(const CScopeInfoKey& key);

  size_t MemoryUse() const;

 private:
  uint32_t PlaceOf(TextView scope_name, uint64_t hash) const;
  TextView NameOf(const CScopeInfoKey& key) const;

  KeyAddress _fAddress;
  std::vector<CScopeInfoKeySet> _fSets;
  CHashIndex _fPlaces;  // of each set in _fSets, by the hash of its scope name
};

// The keys of all files. No file without keys stays in it.
class CKeysByAddress {
 public:
  explicit CKeysByAddress(KeyAddress address) : _fAddress(address) {}

  const CKeysByScope* Find(Loc loc) const { return _fByLoc.Find(loc); }
  const CInsertionOrderedDict<Loc, CKeysByScope>& ByLoc() const { return _fByLoc; }

  // A key that is there already is added once.
  void Add(const CScopeInfoKey& key);
  // An unknown key is no error.
  void Discard(const CScopeInfoKey& key);
  void Clear() { _fByLoc.clear(); }

  // Asserts that it holds exactly the keys of `all`, each under its own address.
  void CheckHolds(const CScopeInfoKeySet& all) const;
  size_t MemoryUse() const;

 private:
  Loc LocOf(const CScopeInfoKey& key) const {
    return _fAddress == KeyAddress::kFor ? key.for_loc() : key.scanned_loc();
  }

  KeyAddress _fAddress;
  CInsertionOrderedDict<Loc, CKeysByScope> _fByLoc;
};

}  // namespace pysource::scopeinfo
