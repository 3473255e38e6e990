// What must hold for any bytes that are read as an encoded message. The fuzz targets call these
// functions with the fuzzer's input, the tests with the files of corpus/ and with earlier findings.
//
// A function returns if everything holds, and otherwise throws CBrokenProperty, which ends a fuzz
// target and fails a test. So does every other exception that leaves a decoder.
#pragma once

#include <algorithm>
#include <cstdint>
#include <stdexcept>
#include <string>
#include <vector>

#include "pysource/host/errors.h"
#include "pysource/host/fastaccess.h"
#include "pysource/host/location.h"
#include "pysource/scopeinfo/records/scopeinfo.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::scopeinfo::fuzz {

class CBrokenProperty : public std::logic_error {
 public:
  using std::logic_error::logic_error;
};

inline void Require(bool holds, const char* what) {
  if (!holds) {
    throw CBrokenProperty(what);
  }
}

// The size to which the strings of a message may expand: the reader's bound, independently of it.
constexpr size_t kFlatBound = size_t{16} << 20;
inline size_t ExpansionBound(BytesView message) { return kFlatBound + 64 * message.size(); }

inline bool SameContent(const CScopeInfo& a, const CScopeInfo& b) {
  return a.scope_ibytes == b.scope_ibytes && a.type_equivs == b.type_equivs &&
         a._domains == b._domains && a.inst_type_equivs == b.inst_type_equivs &&
         a._inst_domains == b._inst_domains && a.does_not_exist == b.does_not_exist;
}

inline size_t ContentSize(const CScopeInfo& info) {
  size_t size = info.scope_ibytes.size();
  const auto add = [&](const CStrDict& dict) {
    for (const auto& [name, ibytes] : dict) {
      size += name.size() + ibytes.size();
    }
  };
  add(info.type_equivs);
  for (const auto* const dict : {&info._domains, &info.inst_type_equivs, &info._inst_domains}) {
    if (*dict) {
      add(**dict);
    }
  }
  return size;
}

// A record message decodes to null, or to a record whose size is in proportion to it. The encoded
// form of that record is canonical: it decodes to the same content and encodes to itself.
inline void CheckRecordMessage(BytesView message) {
  static CLocationCache locations;
  static const CScopeInfoKey key(locations.GetLocation("file:///fuzz.py"), "C.m", ":names",
                                 locations.GetLocation("file:///fuzz.py"), "C");
  static CScopeInfoSerializer serializer;
  const CScopeInfoPtr info = serializer.ReadScopeInfo(key, 2.0, false, message);
  if (info == nullptr) {
    return;
  }
  const size_t size = ContentSize(*info);
  Require(size <= ExpansionBound(message), "a record is out of proportion to its message");
  const Bytes canonical = serializer.WriteScopeInfo(*info);
  // Unused tokens and overlong integers make the bound of a message larger than that of its
  // canonical form.
  if (size > ExpansionBound(canonical)) {
    return;
  }
  const CScopeInfoPtr again = serializer.ReadScopeInfo(key, 2.0, false, canonical);
  Require(again != nullptr, "what was written cannot be read");
  Require(SameContent(*info, *again), "a record is not what was written");
  Require(serializer.WriteScopeInfo(*again) == canonical, "the written form is not canonical");
}

// A scopes-seen message gives CValueError or a dictionary. Written and read again, the dictionary
// has the scope "*" for each file, with exactly the last time of its scopes. Writing and reading
// once more changes nothing.
inline void CheckScopesSeenMessage(BytesView message) {
  constexpr uint64_t kFiles = 16;
  static CLocationCache locations;
  static const std::vector<Loc> files = [] {
    std::vector<Loc> made;
    for (uint64_t id = 0; id < kFiles; ++id) {
      made.push_back(locations.GetLocation("file:///fuzz" + std::to_string(id) + ".py"));
    }
    return made;
  }();
  static CScopeInfoSerializer serializer;
  const auto file_of = [](uint64_t id) { return files[id % kFiles]; };
  const auto id_of = [](Loc loc) {
    return std::optional<uint64_t>(std::find(files.begin(), files.end(), loc) - files.begin());
  };
  CScopesSeenPtr seen;
  try {
    seen = serializer.DeserializeScopesSeenDict(message, file_of);
  } catch (const CValueError&) {
    return;
  }
  Require((seen == nullptr) == message.empty(), "only no bytes are an absent dictionary");
  const Bytes canonical = serializer.SerializeScopesSeenDict(seen.get(), id_of);
  const CScopesSeenPtr again = serializer.DeserializeScopesSeenDict(canonical, file_of);
  Require((again == nullptr) == (seen == nullptr), "what was written cannot be read");
  if (seen == nullptr) {
    return;
  }
  size_t size = 0;
  for (const auto& [ref, mtime] : *seen) {
    size += ref.scope.size();
    Require(again->Contains(CScopeRef{ref.loc, "*"}), "a file is gone");
  }
  Require(size <= ExpansionBound(message), "scopes seen are out of proportion to their message");
  for (const auto& [ref, mtime] : *again) {
    Require(ref.scope == "*", "a written scope is the whole file");
    DiskTime last = 0;
    for (const auto& [seen_ref, seen_mtime] : *seen) {
      last = seen_ref.loc == ref.loc ? seen_mtime : last;
    }
    Require(ULongLongValueForDoubleBits(mtime) == ULongLongValueForDoubleBits(last),
            "a time is not what was written");
  }
  Require(serializer.SerializeScopesSeenDict(again.get(), id_of) == canonical,
          "the written form is not canonical");
}

}  // namespace pysource::scopeinfo::fuzz
