// What must hold of any bytes that claim to be an encoded message. The fuzz targets call these with
// what the fuzzer makes up, the tests with the files of corpus/ and whatever was found before.
//
// A body returns when all is well, and throws CBrokenProperty otherwise, which ends a fuzz target
// and fails a test. Whatever else gets out of a decoder does the same.
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

// What the strings of a message may expand to: the reader's own bound, told a second time.
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

// A record message gives null, or a record in proportion to it. What the record encodes to is
// canonical: it decodes to the same content and encodes to itself.
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
  // Unused tokens and overlong integers lend a message room that its canonical form lacks.
  if (size > ExpansionBound(canonical)) {
    return;
  }
  const CScopeInfoPtr again = serializer.ReadScopeInfo(key, 2.0, false, canonical);
  Require(again != nullptr, "what was written cannot be read");
  Require(SameContent(*info, *again), "a record is not what was written");
  Require(serializer.WriteScopeInfo(*again) == canonical, "the written form is not canonical");
}

// A scopes-seen message gives CValueError or a dictionary. Written and read again, the dictionary
// says "*" for each file, with the last time of its scopes to the bit, and then stays as it is.
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
