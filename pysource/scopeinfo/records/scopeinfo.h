// The record: what is known of one scope of one file.
#pragma once

#include <memory>
#include <optional>
#include <unordered_set>
#include <vector>

#include "pysource/host/arena.h"
#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/strdict.h"
#include "pysource/host/symbolinfo.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/records/scopeinfokey.h"
#include "pysource/scopeinfo/records/scopeinfokeyset.h"
#include "pysource/scopeinfo/records/vocabulary.h"

namespace pysource::scopeinfo {

class CScopeInfo;
using CScopeInfoPtr = std::shared_ptr<CScopeInfo>;

// The empty key set that every record starts with: one shared object.
extern const std::shared_ptr<const CScopeInfoKeySet> kEmptyKeySet;

// What one scan found of a scope, or what several scans found, merged. A scanner makes one, fills
// it and calls FinishedBuilding; from then on the info cache owns it and readers query it.
//
//   auto info = std::make_shared<CScopeInfo>(key, ":cC(Base)", disk_mtime, /*incomplete=*/false);
//   info->SetInfoBytes("x", ":s3;:lint");
//   info->FinishedBuilding();
//
// Whoever is handed a merged record shares it with the cache and must not change it.
//
// An absent dictionary says that nothing of the kind was ever recorded; an empty one is a
// dictionary. The two are encoded alike, but storing into an absent one is an error of the caller.
//
// A new field has four other homes: Merge (mergescopeinfo.cc), WriteScopeInfo and ReadScopeInfo
// (serialized/), and the dumps of tools/scopeinfo.
class CScopeInfo {
 public:
  // `disk_mtime` is the file's modification time when the information was made, or one of the
  // markers of vocabulary.h, or absent. `scope_ibytes` is copied.
  CScopeInfo(CScopeInfoKey info_key, BytesView scope_info_bytes, std::optional<DiskTime> mtime,
             bool is_incomplete, bool is_missing = false);
  // The same over memory that is there already: `scope_info_bytes` points into `arena`.
  CScopeInfo(CScopeInfoKey info_key, CArena arena, BytesView scope_info_bytes,
             std::optional<DiskTime> mtime, bool is_incomplete, bool is_missing);
  CScopeInfo(const CScopeInfo&) = delete;
  CScopeInfo& operator=(const CScopeInfo&) = delete;
  virtual ~CScopeInfo();

  // ---- Queries. Views are good as long as the record.

  // The info bytes of a name, or `fallback`: from the scope, or with `inst` from the instance
  // attributes. from_import_star does not filter here.
  virtual std::optional<BytesView> GetInfoBytes(TextView name,
                                                std::optional<BytesView> fallback = std::nullopt,
                                                bool inst = false) const;
  // The same for callers that hold no typed access.
  std::optional<BytesView> BytecodeGetInfoBytes(TextView name, std::optional<BytesView> fallback,
                                                bool inst) const {
    return GetInfoBytes(name, fallback, inst);
  }

  // The items of a symbol's domain, split at every ";" without regard to nesting; empty when
  // nothing is known. Splits at every call.
  virtual std::vector<TextView> GetDomainSeq(TextView symbol) const;
  virtual std::vector<TextView> GetInstDomainSeq(TextView symbol) const;

  // The encoded form. Made at the first call, by the serializer of the process's info cache, and
  // kept from then on: a record that is merged into or edited later keeps its old bytes unless
  // someone resets _serialized_data. Throws CTypeError when there is no info cache.
  const Bytes& GetSerializedData() const;

  // Whether a copy made for "from m import *" leaves the name out.
  virtual bool IsNameFilteredOut(TextView name) const;

  // Bytes of the object and of what it holds but for its key and what it has seen. `seen` keeps
  // memory that it shares with a copy from being counted twice.
  size_t MemoryUse(std::unordered_set<const void*>& seen) const;

  // "CScopeInfo(loc, for_scope, scanned_scope, disk_mtime, incomplete)".
  Text Repr() const;

  // ---- Building.

  // Stores the info bytes of a name, replacing what was there. Throws CTypeError with `inst` while
  // inst_type_equivs is absent: a builder that sets instance information assigns it first.
  void SetInfoBytes(TextView name, BytesView ibytes, bool inst = false);
  // Stores the items joined with ";", under the same rule for _domains and _inst_domains.
  void SetDomainSeq(TextView name, const std::vector<BytesView>& domain_seq, bool inst = false);
  // Every builder calls it last. Changes nothing; asserts that every name is well-formed text.
  void FinishedBuilding() const;

  // ---- Merging (mergescopeinfo.cc).

  // Folds `to_merge` into this record; with `inst_only` its instance information and the two
  // booleans only. With `add_to_merge_list` the record is noted in _merged_info_list. A failure in
  // the middle leaves this record merged as far as it went.
  virtual void Merge(const CScopeInfoPtr& to_merge, bool inst_only, bool add_to_merge_list = true);

  // A new record with this one's content. Its key is this key with `keep_key`, otherwise one with
  // the scan fields absent. scope_seen_dict, the encoded form and the merge list are not copied.
  // Throws CTypeError for a record with instance domains but without domains (see Merge).
  virtual CScopeInfoPtr Copy(bool inst_only = false, bool keep_key = false, bool from_star = false,
                             std::optional<TextSet> all_set = std::nullopt) const;

  // Adds the scopes to scope_seen_dict; a later time replaces an earlier one.
  void MergeScopesSeen(const CScopesSeenDict& scopes_seen);

  // ---- Fields. Those marked * may be assigned and reset from outside; the others are read-only to
  // callers outside this module.

  const CScopeInfoKey key;
  const Loc loc;             // key.for_loc()
  const TextView for_scope;  // key.for_scope()
  std::optional<DiskTime> disk_mtime;
  const Loc scanned_loc;                        // key.scanned_loc()
  const std::optional<TextView> scanned_scope;  // key.scanned_scope()

  CStrDict type_equivs;                      // * name to what it can be
  std::optional<CStrDict> _domains;          // * name to domain items joined by ";"
  std::optional<CStrDict> inst_type_equivs;  // * the same two for the attributes of a class's
  std::optional<CStrDict> _inst_domains;     // *   instances
  bool does_not_exist;                       // the scope is not there; kept to say so
  bool incomplete;                           // known to be partial; never written to the database
  std::optional<Text> specialized_cls_name;  // * set by builders; copied, not encoded
  CScopesSeenPtr scope_seen_dict;  // * the scopes that were read to make this; can be null
  mutable std::optional<Bytes> _serialized_data;
  std::optional<std::vector<CScopeInfoPtr>> _merged_info_list;  // in order of merging
  Kind scope_kind;         // of the scope itself: module, instance, class, a definition, or 0
  BytesView scope_ibytes;  // info bytes of the scope itself; can be empty
  std::shared_ptr<const CScopeInfoKeySet>
      merged_keys;                        // of all that was merged in, its own included
  bool from_import_star = false;          // set only by Copy: names are subject to
  std::optional<TextSet> import_all_set;  //   IsNameFilteredOut, by these names if present

 private:
  void MergeContent(const CScopeInfo& to_merge, bool inst_only);
  virtual void MergeTypeEquivs(const CScopeInfo& to_merge, CStrDict& equivs_dict,
                               const CStrDict& to_merge_dict) const;

  CArena _fArena;  // holds scope_ibytes and, of a decoded record, everything else
};

}  // namespace pysource::scopeinfo
