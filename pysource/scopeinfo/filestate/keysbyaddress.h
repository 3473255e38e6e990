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

// The keys of one file, in one set for each scope. The names of the scopes are not stored: any key
// of a set has the name. With twenty thousand scopes in five indexes, the names would take most of
// the memory. No set is ever empty.
class CKeysByScope {
 public:
  explicit CKeysByScope(KeyAddress address) : _fAddress(address) {}

  // The keys of the scope; null when there are none. Valid until the next change.
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
  CHashIndex _fPlaces;  // the place of each set in _fSets, by the hash of its scope name
};

// The keys of all files. A file is removed with its last key.
class CKeysByAddress {
 public:
  explicit CKeysByAddress(KeyAddress address) : _fAddress(address) {}

  const CKeysByScope* Find(Loc loc) const { return _fByLoc.Find(loc); }
  const CInsertionOrderedDict<Loc, CKeysByScope>& ByLoc() const { return _fByLoc; }

  // Adding a key again changes nothing.
  void Add(const CScopeInfoKey& key);
  // An unknown key is not an error.
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
