// Scopes of files, and what a scan has seen of them: the small types that database, records and
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

// The same without a copy of the name, for look-ups.
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

// A disk time in seconds: a real one, or one of the three markers in records/vocabulary.h. Two
// unequal times are different contents; no order holds between them.
using DiskTime = double;

// The scopes that were read to make a record, each with the disk time of its file at that point.
using CScopesSeenDict = CInsertionOrderedDict<CScopeRef, DiskTime, CScopeRefHash, CScopeRefEqual>;

// Null is absent, which is not the same as empty. The dictionary can be shared between a stored
// record and the live CScopeInfo that it came from; its times are then restamped for both.
using CScopesSeenPtr = std::shared_ptr<CScopesSeenDict>;

// From file to the names of its scopes that changed. The sets can be shared between files, and must
// not be changed by whoever is handed the dictionary.
using CChangedDict = CInsertionOrderedDict<Loc, std::shared_ptr<TextSet>>;

// One scan to run: which scope of which file, by which scan. kWildcardScope asks for the whole
// file. A record that no named scan made has an empty scan name.
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

// How urgent a needs-scan report is: absent, 1 (scopes changed in an analysis) or 2 (files changed
// outside).
using Priority = std::optional<int>;

}  // namespace pysource
