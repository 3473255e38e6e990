#include "pysource/host/strdict.h"

#include <algorithm>
#include <cstring>
#include <new>
#include <utility>

namespace pysource {
namespace {

// Up to this size, comparing names one by one is faster than making a table.
constexpr uint32_t kLinearSize = 8;

}  // namespace

CStrDict::CStrDict(std::initializer_list<std::pair<TextView, BytesView>> items) {
  for (const auto& [name, ibytes] : items) {
    Set(name, ibytes);
  }
}

CStrDict::CStrDict(CArena arena, size_t capacity) : _fArena(std::move(arena)) { Reserve(capacity); }

CStrDict::CStrDict(const CStrDict& other) {
  if (other.empty()) {
    return;
  }
  _fArena = other._fArena;
  _fItems = other._fItems;
  _fSize = other._fSize;
  _fCapacity = other._fSize;
  _fAscending = other._fAscending;
  _fArenaBorrowed = true;
  _fItemsShared = true;
  other._fItemsShared = true;
}

void CStrDict::DetachItems() {
  const Item* const shared = _fItems;
  size_t bytes = size_t{_fSize} * sizeof(Item);
  if (_fArenaBorrowed) {
    for (const Item& item : *this) {
      bytes += item.first.size() + item.second.size();
    }
    // Copies all texts, not only the items: so the new arena depends on no other when this
    // dictionary is copied in turn, and the borrowed arena is released with this dictionary.
    _fBorrowedArena = std::exchange(_fArena, CArena(bytes));
  }
  auto* const items = static_cast<Item*>(_fArena.Allocate(_fSize * sizeof(Item), alignof(Item)));
  for (uint32_t i = 0; i < _fSize; ++i) {
    new (items + i) Item{_fArenaBorrowed ? _fArena.Store(shared[i].first) : shared[i].first,
                         _fArenaBorrowed ? _fArena.Store(shared[i].second) : shared[i].second};
  }
  _fItems = items;
  _fCapacity = _fSize;
  _fArenaBorrowed = false;
  _fItemsShared = false;
}

std::optional<BytesView> CStrDict::Get(TextView name) const {
  const uint32_t at = Find(name);
  return at == kNone ? std::nullopt : std::optional<BytesView>(_fItems[at].second);
}

uint32_t CStrDict::Find(TextView name) const {
  if (_fAscending) {
    const Item* const found = std::lower_bound(
        begin(), end(), name, [](const Item& item, TextView key) { return item.first < key; });
    return found != end() && found->first == name ? static_cast<uint32_t>(found - begin()) : kNone;
  }
  if (_fSize <= kLinearSize) {
    for (uint32_t i = 0; i < _fSize; ++i) {
      if (_fItems[i].first == name) {
        return i;
      }
    }
    return kNone;
  }
  if (_fIndex == nullptr) {
    _fIndex = std::make_unique<CHashIndex>();
    for (uint32_t i = 0; i < _fSize; ++i) {
      _fIndex->Insert(HashBytes(_fItems[i].first), i);
    }
  }
  return _fIndex->Find(HashBytes(name), [&](uint32_t i) { return _fItems[i].first == name; });
}

void CStrDict::Set(TextView name, BytesView ibytes) {
  const uint32_t at = Find(name);
  if (at != kNone) {
    // Merging often stores a value again that is already there, and the arena never frees memory.
    if (_fItems[at].second != ibytes) {
      MakeItemsOwn();
      _fItems[at].second = _fArena.Store(ibytes);
    }
  } else {
    MakeItemsOwn();
    const TextView stored = _fArena.Store(name);
    Append(stored, _fArena.Store(ibytes));
  }
}

void CStrDict::SetStoredAnywhere(TextView name, BytesView ibytes) {
  MakeItemsOwn();
  const bool is_new = _fSize == 0 || (_fAscending && _fItems[_fSize - 1].first < name);
  const uint32_t at = is_new ? kNone : Find(name);
  if (at != kNone) {
    _fItems[at].second = ibytes;
  } else {
    Append(name, ibytes);
  }
}

bool CStrDict::Erase(TextView name) {
  const uint32_t at = Find(name);
  if (at == kNone) {
    return false;
  }
  MakeItemsOwn();
  std::copy(_fItems + at + 1, _fItems + _fSize, _fItems + at);
  --_fSize;
  _fIndex.reset();
  return true;
}

void CStrDict::clear() {
  CStrDict empty;
  Swap(empty);
}

void CStrDict::Append(TextView name, BytesView ibytes) {
  if (_fSize == _fCapacity) {
    Reserve(_fCapacity == 0 ? 4 : size_t{_fCapacity} * 2);
  }
  _fAscending = _fAscending && (_fSize == 0 || _fItems[_fSize - 1].first < name);
  new (_fItems + _fSize) Item{name, ibytes};
  if (_fIndex != nullptr) {
    _fIndex->Insert(HashBytes(name), _fSize);
  }
  ++_fSize;
}

void CStrDict::Reserve(size_t capacity) {
  if (capacity <= _fCapacity) {
    return;
  }
  // The old items stay in the arena. The capacity doubles, so they take less than the items in use.
  auto* const items = static_cast<Item*>(_fArena.Allocate(capacity * sizeof(Item), alignof(Item)));
  std::uninitialized_copy(_fItems, _fItems + _fSize, items);
  _fItems = items;
  _fCapacity = static_cast<uint32_t>(capacity);
}

bool operator==(const CStrDict& a, const CStrDict& b) {
  return a.size() == b.size() && std::all_of(a.begin(), a.end(), [&](const CStrDict::Item& item) {
           return b.Get(item.first) == item.second;
         });
}

}  // namespace pysource
