#include "pysource/scopeinfo/records/scopeinfokey.h"

#include <cstring>
#include <new>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/repr.h"

namespace pysource::scopeinfo {
namespace {

uint64_t HashOptional(uint64_t seed, const std::optional<TextView>& text) {
  // The seed of an absent field differs from that of the empty text.
  return text ? CombineHash(seed, HashBytes(*text)) : CombineHash(seed, 1);
}

template <class Field>
bool DefinitelyLess(const std::optional<Field>& a, const std::optional<Field>& b) {
  if (!a || !b) {
    throw CTypeError("a key with an absent field cannot be ordered");
  }
  return *a < *b;
}

}  // namespace

CScopeInfoKey::CScopeInfoKey(Loc for_loc, TextView for_scope, std::optional<TextView> scan_name,
                             Loc scanned_loc, std::optional<TextView> scanned_scope) {
  Assert(static_cast<bool>(for_loc));
  Assert(!scan_name || scan_name->starts_with(':'));
  Assert(!for_scope.starts_with(':'));

  const bool same_scope = scanned_scope && *scanned_scope == for_scope;
  const size_t scan_name_size = scan_name ? scan_name->size() : 0;
  const size_t own_scope_size = scanned_scope && !same_scope ? scanned_scope->size() : 0;
  const size_t text_size = for_scope.size() + scan_name_size + own_scope_size;
  if (text_size >= kAbsent) {
    throw CValueError("the names of a key take more than 4 GiB");
  }
  uint64_t hash = CombineHash(for_loc.Hash(), HashBytes(for_scope));
  hash = HashOptional(hash, scan_name);
  hash = CombineHash(hash, scanned_loc.Hash());
  hash = HashOptional(hash, scanned_scope);

  void* const memory = ::operator new(sizeof(Rep) + text_size);
  _fRep = new (memory) Rep{
      .users = 1,
      .for_scope_size = static_cast<uint32_t>(for_scope.size()),
      .scan_name_size = scan_name ? static_cast<uint32_t>(scan_name_size) : kAbsent,
      .scanned_scope_size = scanned_scope ? static_cast<uint32_t>(scanned_scope->size()) : kAbsent,
      .scanned_scope_at = same_scope ? 0 : static_cast<uint32_t>(for_scope.size() + scan_name_size),
      .hash = hash,
      .for_loc = for_loc,
      .scanned_loc = scanned_loc,
  };
  char* at = reinterpret_cast<char*>(_fRep + 1);
  const auto append = [&at](TextView text) {
    if (!text.empty()) {
      std::memcpy(at, text.data(), text.size());
      at += text.size();
    }
  };
  append(for_scope);
  append(scan_name.value_or(TextView()));
  if (own_scope_size != 0) {
    append(*scanned_scope);
  }
}

bool CScopeInfoKey::HasSameFields(const CScopeInfoKey& other) const noexcept {
  return for_loc() == other.for_loc() && for_scope() == other.for_scope() &&
         scan_name() == other.scan_name() && scanned_loc() == other.scanned_loc() &&
         scanned_scope() == other.scanned_scope();
}

bool operator<=(const CScopeInfoKey& a, const CScopeInfoKey& b) {
  if (!a || !b) {
    return true;
  }
  return a.for_loc() < b.for_loc() || a.for_scope() < b.for_scope() ||
         DefinitelyLess(a.scan_name(), b.scan_name()) || a.scanned_loc() < b.scanned_loc() ||
         DefinitelyLess(a.scanned_scope(), b.scanned_scope());
}

Text CScopeInfoKey::Repr() const {
  if (_fRep == nullptr) {
    return "None";
  }
  return FormatBraces("CScopeInfoKey({}, {}, {}, {}, {})",
                      {for_loc(), pysource::Repr(for_scope()), pysource::Repr(scan_name()),
                       scanned_loc(), pysource::Repr(scanned_scope())});
}

size_t CScopeInfoKey::MemoryUse() const noexcept {
  if (_fRep == nullptr) {
    return 0;
  }
  size_t size = sizeof(Rep) + for_scope().size() + scan_name().value_or(TextView()).size();
  // At 0 it shares the text of for_scope, unless that is empty and it has a text of its own.
  if ((_fRep->scanned_scope_at != 0 || for_scope().empty()) && scanned_scope()) {
    size += _fRep->scanned_scope_size;
  }
  return size;
}

}  // namespace pysource::scopeinfo
