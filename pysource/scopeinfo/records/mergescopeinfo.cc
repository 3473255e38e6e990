// How records merge. The meaning of a value depends on the scope in which it was found, so a value
// that is merged into a record of another scope or file takes its context along:
//
//   merged from               the item becomes             kept as it is
//   same file, same scope     unchanged                    everything
//   same file, another scope  ":S<scope> <item>"           literals, builtin classes, URLs, scopes
//   another file              ":U<url> :S<scope> <item>"   literals, builtin classes, URLs
//
// All alternatives are kept; none takes precedence over another.
#include "pysource/scopeinfo/records/mergescopeinfo.h"

#include <algorithm>
#include <set>
#include <utility>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/fastaccess.h"
#include "pysource/host/logger.h"
#include "pysource/host/repr.h"
#include "pysource/host/symbolinfo/kinds.h"

namespace pysource::scopeinfo {
namespace {

// Joins the values of `from` into `into`, name by name.
void JoinDict(CStrDict& into, const CStrDict& from) {
  if (into.empty()) {
    // One allocation of the exact size; most merged records are copies of a single record.
    into = from;
    return;
  }
  for (const auto& [name, ibytes] : from) {
    into.Set(name, JoinInfoBytes(into.Get(name).value_or(BytesView()), ibytes));
  }
}

void EnsurePresent(std::optional<CStrDict>& dict) {
  if (!dict) {
    dict.emplace();
  }
}

void LogLargeMerge(const CScopeInfo& primary_info, size_t other_count, size_t inst_count,
                   const std::vector<CScopeInfoKey>& merged_key_list) {
  PrintLine(FormatBraces("Merged scope info instances for {}", {primary_info.key}));
  PrintLine(FormatBraces("  len(other_info_seq) = {}", {other_count}));
  PrintLine(FormatBraces("  len(inst_info_seq) = {}", {inst_count}));
  PrintLine(FormatBraces("  len(merged_key_list) = {}", {merged_key_list.size()}));
  PrintLine(
      FormatBraces("  len(primary_info.merged_keys) = {}", {primary_info.merged_keys->size()}));
  const auto shown = static_cast<ptrdiff_t>(std::min<size_t>(merged_key_list.size(), 50));
  PrintLine(FormatBraces(
      "  merged_key_list = {}",
      {std::vector<CScopeInfoKey>(merged_key_list.begin(), merged_key_list.begin() + shown)}));
}

}  // namespace

CScopeInfoPtr MergeScopeInfoSeq(const CScopeInfoPtr& primary_info,
                                const std::vector<CScopeInfoPtr>& other_info_seq,
                                const std::vector<CScopeInfoPtr>& inst_info_seq) {
  if (other_info_seq.empty() && inst_info_seq.empty()) {
    return primary_info;
  }
  std::vector<CScopeInfoKey> merged_key_list{primary_info->key};
  for (const CScopeInfoPtr& other : other_info_seq) {
    Assert(other != nullptr);
    primary_info->Merge(other, false);
    merged_key_list.push_back(other->key);
  }
  for (const CScopeInfoPtr& inst : inst_info_seq) {
    if (inst != nullptr) {
      primary_info->Merge(inst, true);
      merged_key_list.push_back(inst->key);
    }
  }
  primary_info->merged_keys =
      std::make_shared<CScopeInfoKeySet>(merged_key_list.begin(), merged_key_list.end());
  if (kLogLargeMerges && other_info_seq.size() + inst_info_seq.size() > 20) {
    LogLargeMerge(*primary_info, other_info_seq.size(), inst_info_seq.size(), merged_key_list);
  }
  return primary_info;
}

void CScopeInfo::Merge(const CScopeInfoPtr& to_merge, bool inst_only, bool add_to_merge_list) {
  if (to_merge == nullptr) {
    throw CTypeError("an absent record cannot be merged");
  }
  // Noted first, so that the list also names a record whose merge fails half-way.
  if (add_to_merge_list) {
    if (!_merged_info_list) {
      _merged_info_list.emplace();
    }
    _merged_info_list->push_back(to_merge);
  }
  MergeContent(*to_merge, inst_only);
}

void CScopeInfo::MergeContent(const CScopeInfo& to_merge, bool inst_only) {
  incomplete = incomplete || to_merge.incomplete;
  does_not_exist = does_not_exist && to_merge.does_not_exist;
  if (!inst_only) {
    MergeTypeEquivs(to_merge, type_equivs, to_merge.type_equivs);
    if (to_merge._domains) {
      EnsurePresent(_domains);
      JoinDict(*_domains, *to_merge._domains);
    }
  }
  if (to_merge.inst_type_equivs) {
    EnsurePresent(inst_type_equivs);
    MergeTypeEquivs(to_merge, *inst_type_equivs, *to_merge.inst_type_equivs);
  }
  if (to_merge._inst_domains) {
    EnsurePresent(_inst_domains);
    for (const auto& [name, domain] : *to_merge._inst_domains) {
      // The old value comes from _domains, the dictionary of the class, not from _inst_domains. So
      // the class-level domain of a name is joined into the instance's domain, and what
      // _inst_domains held for the name is replaced. Every version has merged this way; another
      // rule here would give readers two answers for one database. Without _domains it fails.
      if (!_domains) {
        throw CTypeError("instance domains of " + to_merge.key.Repr() +
                         " cannot be merged into a record without domains");
      }
      _inst_domains->Set(name, JoinInfoBytes(_domains->Get(name).value_or(BytesView()), domain));
    }
  }
}

void CScopeInfo::MergeTypeEquivs(const CScopeInfo& to_merge, CStrDict& equivs_dict,
                                 const CStrDict& to_merge_dict) const {
  // Compared by identity on purpose: an equal but distinct location counts as another file, and the
  // value takes its URL along.
  const bool same_loc = LocationsEqual(loc, to_merge.loc);
  if (same_loc && for_scope == to_merge.for_scope) {
    JoinDict(equivs_dict, to_merge_dict);
    return;
  }
  Bytes url_prefix;
  if (!same_loc) {
    url_prefix = LocationContext(to_merge.loc);
  }
  for (const auto& [name, ibytes] : to_merge_dict) {
    // Sorted, so that the value does not depend on the order of the merges.
    std::set<Bytes, std::less<>> items;
    if (const auto old = equivs_dict.Get(name)) {
      ForEachNonNested(*old, kInfoBytesSep, [&](BytesView item) { items.emplace(item); });
    }
    ForEachNonNested(ibytes, kInfoBytesSep, [&](BytesView item) {
      const Kind kind = GetInfoBytesKind(item);
      if (MeansTheSameEverywhere(kind)) {
        items.emplace(item);
        return;
      }
      if (!same_loc) {
        // Unlike within one file, items that name a scope get a prefix too: their scope is in the
        // other file.
        items.insert(url_prefix + PrefixWithLocationAndScope(item, nullptr, to_merge.for_scope));
        return;
      }
      Assert(scanned_scope != to_merge.scanned_scope);
      if (kind == kSpecificScopeKind) {
        items.emplace(item);
      } else {
        items.insert(PrefixWithLocationAndScope(item, nullptr, to_merge.for_scope));
      }
    });
    Bytes joined;
    for (const Bytes& item : items) {
      if (&item != &*items.begin()) {
        joined += kInfoBytesSep;
      }
      joined += item;
    }
    equivs_dict.Set(name, joined);
  }
}

CScopeInfoPtr CScopeInfo::Copy(bool inst_only, bool keep_key, bool from_star,
                               std::optional<TextSet> all_set) const {
  auto copy = std::make_shared<CScopeInfo>(
      keep_key ? key
               : CScopeInfoKey(key.for_loc(), key.for_scope(), std::nullopt, nullptr, std::nullopt),
      scope_ibytes, disk_mtime, incomplete, does_not_exist);
  copy->MergeContent(*this, inst_only);
  copy->specialized_cls_name = specialized_cls_name;
  copy->merged_keys = merged_keys;
  copy->from_import_star = from_star;
  copy->import_all_set = std::move(all_set);
  return copy;
}

void CScopeInfo::MergeScopesSeen(const CScopesSeenDict& scopes_seen) {
  if (scope_seen_dict == nullptr) {
    scope_seen_dict = std::make_shared<CScopesSeenDict>();
  }
  for (const auto& [scope, mtime] : scopes_seen) {
    scope_seen_dict->Set(scope, mtime);
  }
}

CScopeInfoPtr CreateImplicitPackageInfo(Loc init_loc, const std::vector<Text>& name_list) {
  // Without a scan name but with the scanned fields: no named scan lists a folder, but which folder
  // was listed is known.
  auto info = std::make_shared<CScopeInfo>(
      CScopeInfoKey(init_loc, kModuleScopeName, std::nullopt, init_loc, kPackageDirScope),
      BytesView(), kFileModifiedInMemoryMtime, false);
  for (const Text& name : name_list) {
    info->SetInfoBytes(name, gInfoBytesBuilder.SetInfo(-1) + kInfoBytesSep +
                                 gInfoBytesBuilder.FromImportInfo(".", name));
  }
  info->FinishedBuilding();
  return info;
}

}  // namespace pysource::scopeinfo
