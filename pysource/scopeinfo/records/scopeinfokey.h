// What names a record: where its information is for, and which scan of what found it.
#pragma once

#include <cstdint>
#include <functional>
#include <optional>
#include <utility>

#include "pysource/host/location.h"
#include "pysource/host/text.h"

namespace pysource::scopeinfo {

// Five fields. for_loc and for_scope name the scope that the information is for and are always
// there. scan_name, scanned_loc and scanned_scope say which single scan of which scope produced it;
// on merged information all three are absent. One scan produces records for other scopes, and for
// scopes of other files, than the one it scanned.
//
// A key is an immutable value behind a handle of one pointer: copying it costs a count, its hash is
// computed once, and sets of keys hold a pointer a member. The count is plain, so a key and its
// copies belong to one thread at a time. A default-made key is absent; nothing but comparing and
// testing it is allowed.
class CScopeInfoKey {
 public:
  CScopeInfoKey() noexcept = default;

  // Asserts that for_loc is present, that a scan name starts with ":" and that for_scope does not.
  // Nothing ties the three scan fields together: a key with some of them is accepted as it stands.
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
  // The dotted name of the scope in that file; never starts with ":". Like the other names it is a
  // view that is good as long as any copy of the key.
  TextView for_scope() const noexcept { return {_fRep->Chars(), _fRep->for_scope_size}; }
  // The scan that generated the information, or absent; starts with ":".
  std::optional<TextView> scan_name() const noexcept {
    return Optional(_fRep->for_scope_size, _fRep->scan_name_size);
  }
  // The file that was scanned, or absent.
  Loc scanned_loc() const noexcept { return _fRep->scanned_loc; }
  // The scope that was scanned, or absent.
  std::optional<TextView> scanned_scope() const noexcept {
    return Optional(_fRep->scanned_scope_at, _fRep->scanned_scope_size);
  }

  // Asks for the shared value to be brought near, for one who will copy the handle soon: keys of
  // records that were not looked at for long lie in cold memory.
  void Prefetch() const noexcept { __builtin_prefetch(_fRep, 1); }

  size_t Hash() const noexcept { return _fRep == nullptr ? 0 : static_cast<size_t>(_fRep->hash); }

  // Whether both are keys with equal fields, looked at in declared order.
  bool Equals(const CScopeInfoKey& other) const noexcept {
    if (_fRep == other._fRep) {
      return _fRep != nullptr;
    }
    return _fRep != nullptr && other._fRep != nullptr && _fRep->hash == other._fRep->hash &&
           HasSameFields(other);
  }

  // An absent key is equal to nothing, not even to another absent one...
  friend bool operator==(const CScopeInfoKey& a, const CScopeInfoKey& b) noexcept {
    return a.Equals(b);
  }
  // ...and unequal to nothing either: this is not the negation of the above when one is absent.
  // Callers rely on it to leave absent keys out of both answers.
  friend bool operator!=(const CScopeInfoKey& a, const CScopeInfoKey& b) noexcept {
    return a._fRep != nullptr && b._fRep != nullptr && !a.Equals(b);
  }
  // True when either is absent. Otherwise true at the first field, in declared order, that is less
  // than the other's; the last field decides alone. This is a chain of comparisons and no order: a
  // key is not less-or-equal to its equal. Throws CTypeError when it meets an absent field.
  friend bool operator<=(const CScopeInfoKey& a, const CScopeInfoKey& b);
  // There is no other order between keys.
  friend bool operator<(const CScopeInfoKey& a, const CScopeInfoKey& b) = delete;
  friend bool operator>(const CScopeInfoKey& a, const CScopeInfoKey& b) = delete;
  friend bool operator>=(const CScopeInfoKey& a, const CScopeInfoKey& b) = delete;

  // "CScopeInfoKey(for_loc, for_scope, scan_name, scanned_loc, scanned_scope)".
  Text Repr() const;

  // Bytes of the shared value, for memory reports.
  size_t MemoryUse() const noexcept;

 private:
  static constexpr uint32_t kAbsent = 0xFFFFFFFF;

  // One block: this head, then the text of for_scope, scan_name and, unless it is the same text as
  // for_scope (most scans report on the scope that they scanned), scanned_scope.
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

// A copy of the handle, for an operation that is given a reference to a key which may lie in the
// very set that it is about to change.
inline CScopeInfoKey Held(const CScopeInfoKey& key) { return key; }

struct CScopeInfoKeyHash {
  size_t operator()(const CScopeInfoKey& key) const noexcept { return key.Hash(); }
};

}  // namespace pysource::scopeinfo

template <>
struct std::hash<pysource::scopeinfo::CScopeInfoKey> : pysource::scopeinfo::CScopeInfoKeyHash {};
