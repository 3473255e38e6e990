// The identity of a record: the scope that its information is for, and the scan that found it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "pysource/host/location.h"
#include "pysource/host/text.h"

namespace pysource::scopeinfo {

// A key has five fields. for_loc and for_scope name the scope that the information is for and are
// always present. scan_name, scanned_loc and scanned_scope name the one scan, of one scope, that
// produced it; merged records have none of the three. A scan can also produce records for other
// scopes than the one it scanned, and for scopes of other files.
//
// A key is an immutable value behind a handle of one pointer: a copy costs an increment, the hash
// is computed once, and a set of keys takes one pointer for each member. A default-constructed key
// is absent.
//
// REQUIRES: a key and its copies are used by one thread at a time, since the count is not atomic.
// REQUIRES: callers do not read the fields of an absent key.
class CScopeInfoKey {
 public:
  CScopeInfoKey() noexcept = default;

  // REQUIRES: for_loc is present, a scan name starts with ":" and for_scope does not. Asserted.
  // The three scan fields are independent: a key may have only some of them.
  CScopeInfoKey(Loc for_loc, TextView for_scope, std::optional<TextView> scan_name, Loc scanned_loc,
                std::optional<TextView> scanned_scope);

  CScopeInfoKey(const CScopeInfoKey& other) noexcept : _fRep(other._fRep) {
    if (_fRep != nullptr) {
      ++_fRep->users;
    }
  }
  CScopeInfoKey(CScopeInfoKey&& other) noexcept : _fRep(std::exchange(other._fRep, nullptr)) {}
  CScopeInfoKey& operator=(CScopeInfoKey other) noexcept {
    std::swap(_fRep, other._fRep);
    return *this;
  }
  ~CScopeInfoKey() {
    if (_fRep != nullptr && --_fRep->users == 0) {
      ::operator delete(_fRep);
    }
  }

  explicit operator bool() const noexcept { return _fRep != nullptr; }

  // The file that the information is for.
  Loc for_loc() const noexcept { return _fRep->for_loc; }
  // The dotted name of the scope in that file; never starts with ":". This and the other names are
  // views that are valid as long as any copy of the key lives.
  TextView for_scope() const noexcept { return {_fRep->Chars(), _fRep->for_scope_size}; }
  // The scan that produced the information, or absent; starts with ":".
  std::optional<TextView> scan_name() const noexcept {
    return Optional(_fRep->for_scope_size, _fRep->scan_name_size);
  }
  // The file that was scanned, or absent.
  Loc scanned_loc() const noexcept { return _fRep->scanned_loc; }
  // The scope that was scanned, or absent.
  std::optional<TextView> scanned_scope() const noexcept {
    return Optional(_fRep->scanned_scope_at, _fRep->scanned_scope_size);
  }

  // Prefetches the shared value, for callers that will copy the handle soon: the keys of records
  // that have not been used for long are not in the processor's cache.
  void Prefetch() const noexcept { __builtin_prefetch(_fRep, 1); }

  size_t Hash() const noexcept { return _fRep == nullptr ? 0 : static_cast<size_t>(_fRep->hash); }

  // Whether both are present and have equal fields, compared in declared order.
  bool Equals(const CScopeInfoKey& other) const noexcept {
    if (_fRep == other._fRep) {
      return _fRep != nullptr;
    }
    return _fRep != nullptr && other._fRep != nullptr && _fRep->hash == other._fRep->hash &&
           HasSameFields(other);
  }

  // An absent key is equal to no key, not even to another absent one...
  friend bool operator==(const CScopeInfoKey& a, const CScopeInfoKey& b) noexcept {
    return a.Equals(b);
  }
  // ...and it is not unequal to any key either: with an absent key this is not the negation of ==.
  // Callers rely on that to exclude absent keys from both results.
  friend bool operator!=(const CScopeInfoKey& a, const CScopeInfoKey& b) noexcept {
    return a._fRep != nullptr && b._fRep != nullptr && !a.Equals(b);
  }
  // True when either is absent. Otherwise true as soon as a field, in declared order, is less than
  // the other key's, whatever the fields before it. This is not an order: for equal keys it is
  // false. Throws CTypeError on reaching an absent field.
  friend bool operator<=(const CScopeInfoKey& a, const CScopeInfoKey& b);
  // Keys have no other order.
  friend bool operator<(const CScopeInfoKey& a, const CScopeInfoKey& b) = delete;
  friend bool operator>(const CScopeInfoKey& a, const CScopeInfoKey& b) = delete;
  friend bool operator>=(const CScopeInfoKey& a, const CScopeInfoKey& b) = delete;

  // "CScopeInfoKey(for_loc, for_scope, scan_name, scanned_loc, scanned_scope)".
  Text Repr() const;

  // The bytes of the shared value, for memory reports.
  size_t MemoryUse() const noexcept;

 private:
  static constexpr uint32_t kAbsent = 0xFFFFFFFF;

  // One block: this header, then the text of for_scope, of scan_name and of scanned_scope. Where
  // scanned_scope has the same text as for_scope, it shares it: most scans report on the scope that
  // they scanned.
  struct Rep {
    uint32_t users;
    uint32_t for_scope_size;
    uint32_t scan_name_size;      // kAbsent when absent
    uint32_t scanned_scope_size;  // kAbsent when absent
    uint32_t scanned_scope_at;
    uint64_t hash;
    Loc for_loc;
    Loc scanned_loc;

    const char* Chars() const noexcept { return reinterpret_cast<const char*>(this + 1); }
  };

  std::optional<TextView> Optional(uint32_t at, uint32_t size) const noexcept {
    if (size == kAbsent) {
      return std::nullopt;
    }
    return TextView(_fRep->Chars() + at, size);
  }

  bool HasSameFields(const CScopeInfoKey& other) const noexcept;

  Rep* _fRep = nullptr;
};

// A copy of the handle, for operations whose argument may refer to a key in a set that they change.
inline CScopeInfoKey Held(const CScopeInfoKey& key) { return key; }

struct CScopeInfoKeyHash {
  size_t operator()(const CScopeInfoKey& key) const noexcept { return key.Hash(); }
};

}  // namespace pysource::scopeinfo

template <>
struct std::hash<pysource::scopeinfo::CScopeInfoKey> : pysource::scopeinfo::CScopeInfoKeyHash {};
