// The record: what is known about one scope of one file.
#pragma once

#include <memory>
#include <optional>
#include <unordered_set>
#include <vector>

#include "pysource/host/arena.h"
#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/strdict.h"
#include "pysource/host/symbolinfo/infobytes.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/records/scopeinfokey.h"
#include "pysource/scopeinfo/records/scopeinfokeyset.h"
#include "pysource/scopeinfo/records/vocabulary.h"

namespace pysource::scopeinfo {

class CScopeInfo;
using CScopeInfoPtr = std::shared_ptr<CScopeInfo>;

// The empty key set that every record starts with: one shared object.
extern const std::shared_ptr<const CScopeInfoKeySet> kEmptyKeySet;

// What one scan found for a scope, or what several scans found, merged. A scanner creates a record,
// fills it and calls FinishedBuilding; from then on the info cache owns it and readers query it.
// It reads no files and no database.
//
//   auto info = std::make_shared<CScopeInfo>(key, ":cC(Base)", disk_mtime, /*incomplete=*/false);
//   info->SetInfoBytes("x", ":s3;:lint");
//   info->FinishedBuilding();
//
// REQUIRES: nobody changes a merged record that the cache has returned; the cache shares it.
//
// An absent dictionary means that nothing of the kind was ever recorded; an empty one is present.
// The two are encoded alike, but storing into an absent one is an error of the caller.
//
// A new field has four other homes: Merge (mergescopeinfo.cc), WriteScopeInfo and ReadScopeInfo
// (serialized/), and the dumps of tools/scopeinfo.
class CScopeInfo {
 public:
  // `mtime` is the disk time of the file content that the information was made from, or one of the
  // markers of vocabulary.h, or absent. Copies `scope_info_bytes`.
  CScopeInfo(CScopeInfoKey info_key, BytesView scope_info_bytes, std::optional<DiskTime> mtime,
             bool is_incomplete, bool is_missing = false);
  // The same over existing memory.
  // REQUIRES: `scope_info_bytes` points into `arena`.
  CScopeInfo(CScopeInfoKey info_key, CArena arena, BytesView scope_info_bytes,
             std::optional<DiskTime> mtime, bool is_incomplete, bool is_missing);
  CScopeInfo(const CScopeInfo&) = delete;
  CScopeInfo& operator=(const CScopeInfo&) = delete;
  virtual ~CScopeInfo();

  // ---- Queries. Views are valid as long as the record lives and is not changed.

  // The info bytes of a name of the scope (with `inst`: of an instance attribute), or `fallback` if
  // there are none. from_import_star does not filter here.
  virtual std::optional<BytesView> GetInfoBytes(TextView name,
                                                std::optional<BytesView> fallback = std::nullopt,
                                                bool inst = false) const;
  // The same for callers that hold no typed access.
  std::optional<BytesView> BytecodeGetInfoBytes(TextView name, std::optional<BytesView> fallback,
                                                bool inst) const {
    return GetInfoBytes(name, fallback, inst);
  }

  // The items of a symbol's domain, split at every ";" whatever the nesting; empty when the symbol
  // has none. Each call splits anew.
  virtual std::vector<TextView> GetDomainSeq(TextView symbol) const;
  virtual std::vector<TextView> GetInstDomainSeq(TextView symbol) const;

  // The encoded form. The first call makes it, with the serializer of the process's info cache, and
  // the record keeps it: a record that is changed later still returns its old bytes, unless
  // _serialized_data was reset. Throws CTypeError when there is no info cache.
  const Bytes& GetSerializedData() const;

  // Whether a copy made for "from m import *" leaves the name out.
  virtual bool IsNameFilteredOut(TextView name) const;

  // The bytes of the object and of what it holds, without its key and the scopes that it has seen.
  // `seen` prevents memory that it shares with a copy from being counted twice.
  size_t MemoryUse(std::unordered_set<const void*>& seen) const;

  // "CScopeInfo(loc, for_scope, scanned_scope, disk_mtime, incomplete)".
  Text Repr() const;

  // ---- Building.

  // Stores the info bytes of a name, replacing what was there.
  // REQUIRES: with `inst`, inst_type_equivs is present. Throws CTypeError otherwise.
  void SetInfoBytes(TextView name, BytesView ibytes, bool inst = false);
  // Stores the items joined with ";".
  // REQUIRES: _domains (with `inst`: _inst_domains) is present. Throws CTypeError otherwise.
  void SetDomainSeq(TextView name, const std::vector<BytesView>& domain_seq, bool inst = false);
  // Every builder calls this last. Changes nothing; asserts that every name is well-formed UTF-8.
  void FinishedBuilding() const;

  // ---- Merging (mergescopeinfo.cc).

  // Merges `to_merge` into this record; with `inst_only` only its instance information and the two
  // booleans. With `add_to_merge_list` adds it to _merged_info_list. After an exception this record
  // is partly merged.
  virtual void Merge(const CScopeInfoPtr& to_merge, bool inst_only, bool add_to_merge_list = true);

  // A new record with the content of this one. With `keep_key` it has the same key, otherwise one
  // without the scan fields. Does not copy scope_seen_dict, the encoded form and the merge list.
  // Throws CTypeError for a record with instance domains but without domains (see Merge).
  virtual CScopeInfoPtr Copy(bool inst_only = false, bool keep_key = false, bool from_star = false,
                             std::optional<TextSet> all_set = std::nullopt) const;

  // Adds the scopes to scope_seen_dict; a later time replaces an earlier one.
  void MergeScopesSeen(const CScopesSeenDict& scopes_seen);

  // ---- Fields.
  // REQUIRES: code outside this module assigns only those that are marked with *.

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
  bool does_not_exist;                       // the scope does not exist; the record notes that
  bool incomplete;                           // known to be partial; never written to the database
  std::optional<Text> specialized_cls_name;  // * set by builders; copied, not encoded
  CScopesSeenPtr scope_seen_dict;  // * the scopes that were read to make this; can be null
  mutable std::optional<Bytes> _serialized_data;
  std::optional<std::vector<CScopeInfoPtr>> _merged_info_list;  // in order of merging
  Kind scope_kind;         // of the scope itself: module, instance, class, a definition, or 0
  BytesView scope_ibytes;  // info bytes of the scope itself; can be empty
  std::shared_ptr<const CScopeInfoKeySet>
      merged_keys;                        // of everything merged in, including its own
  bool from_import_star = false;          // set only by Copy: names are subject to
  std::optional<TextSet> import_all_set;  //   IsNameFilteredOut, by these names if present

 private:
  void MergeContent(const CScopeInfo& to_merge, bool inst_only);
  virtual void MergeTypeEquivs(const CScopeInfo& to_merge, CStrDict& equivs_dict,
                               const CStrDict& to_merge_dict) const;

  CArena _fArena;  // holds scope_ibytes and, in a decoded record, all other text
};

}  // namespace pysource::scopeinfo
