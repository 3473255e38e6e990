// Scopes of files, and the scopes that a scan has seen: the small types that database, records and
// cache share.
#pragma once

#include <memory>
#include <optional>
#include <tuple>
#include <utility>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/ordereddict.h"
#include "pysource/host/text.h"

namespace pysource {

// One scope of one file.
struct CScopeRef {
  Loc loc;
  Text scope;

  friend bool operator==(const CScopeRef&, const CScopeRef&) = default;
  Text Repr() const;
};

// The same with a view of the name, for look-ups.
struct CScopeRefView {
  CScopeRefView(Loc l, TextView s) : loc(l), scope(s) {}
  // NOLINTNEXTLINE(google-explicit-constructor): a view of the same thing
  CScopeRefView(const CScopeRef& ref) : loc(ref.loc), scope(ref.scope) {}
  Loc loc;
  TextView scope;
};

struct CScopeRefHash {
  using is_transparent = void;
  size_t operator()(const CScopeRefView& ref) const noexcept {
    return CombineHash(ref.loc.Hash(), HashBytes(ref.scope));
  }
};

struct CScopeRefEqual {
  using is_transparent = void;
  bool operator()(const CScopeRefView& a, const CScopeRefView& b) const noexcept {
    return a.loc == b.loc && a.scope == b.scope;
  }
};

using CScopeRefSet = std::unordered_set<CScopeRef, CScopeRefHash, CScopeRefEqual>;

// A disk time in seconds: a real one, or one of the three markers in records/vocabulary.h. Unequal
// times mean different contents; which content is newer is not known from them.
using DiskTime = double;

// The scopes that were read to make a record, each with the disk time of its file at that point.
using CScopesSeenDict = CInsertionOrderedDict<CScopeRef, DiskTime, CScopeRefHash, CScopeRefEqual>;

// Null means absent, which is not the same as empty. A stored record and the live CScopeInfo that
// it came from can share the dictionary; a change of its times then applies to both.
using CScopesSeenPtr = std::shared_ptr<CScopesSeenDict>;

// From each file to the names of its scopes that changed.
// REQUIRES: receivers do not change the sets, which files can share.
using CChangedDict = CInsertionOrderedDict<Loc, std::shared_ptr<TextSet>>;

// One scan to run: the file, the scope and the name of the scan. kWildcardScope stands for the
// whole file. The scan name is empty for a record that no named scan made.
struct CNeedsScan {
  Loc scanned_loc;
  Text scanned_scope;
  Text scan_name;

  friend bool operator==(const CNeedsScan&, const CNeedsScan&) = default;
  Text Repr() const;
};

struct CNeedsScanHash {
  size_t operator()(const CNeedsScan& scan) const noexcept {
    return CombineHash(CombineHash(scan.scanned_loc.Hash(), HashBytes(scan.scanned_scope)),
                       HashBytes(scan.scan_name));
  }
};

using CNeedsScanSet = std::unordered_set<CNeedsScan, CNeedsScanHash>;

// The urgency of kNeedsScanAdded: absent, 1 (scopes of an analysis changed) or 2 (files changed on
// disk).
using Priority = std::optional<int>;

}  // namespace pysource
