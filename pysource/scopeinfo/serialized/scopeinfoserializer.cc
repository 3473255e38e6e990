#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

#include <algorithm>
#include <array>
#include <bit>
#include <memory>
#include <typeinfo>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/logger.h"
#include "pysource/host/repr.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/scopeinfo/serialized/separators.h"

namespace pysource::scopeinfo {
namespace {

// Prefetches the parts of the record that are encoded, all at once: a record that waits to be
// written is rarely in the processor's cache, and fetching one part after the other takes as long
// as encoding it. Leaves out the text of the names: its address is not known yet, and waiting for
// it costs more than it gains.
void Prefetch(const CScopeInfo& info) {
  __builtin_prefetch(&info.scope_ibytes);
  __builtin_prefetch(&info.inst_type_equivs);
  __builtin_prefetch(&info._inst_domains);
  __builtin_prefetch(info.type_equivs.begin());
  __builtin_prefetch(info.scope_ibytes.data());
}

const CStrDict* OrNull(const std::optional<CStrDict>& dict) { return dict ? &*dict : nullptr; }

}  // namespace

CScopeInfoSerializer::CScopeInfoSerializer() = default;
CScopeInfoSerializer::~CScopeInfoSerializer() = default;

void CScopeInfoSerializer::Clear() {
  fWriteBuffer.Reset();
  fTokens.clear();
}

void CScopeInfoSerializer::WriteInt(uint64_t value) { fWriteBuffer.WriteInt(value); }

void CScopeInfoSerializer::WriteStr(std::optional<BytesView> s) {
  if (!s) {
    throw CTypeError("an absent string cannot be written");
  }
  if (OverridesPieces()) {
    WriteStrByPieces(*s);
  } else {
    WriteWholeStr(*s);
  }
}

bool CScopeInfoSerializer::OverridesPieces() const {
  return typeid(*this) != typeid(CScopeInfoSerializer);
}

void CScopeInfoSerializer::WriteStrByPieces(BytesView s) {
  const auto write_reference = [&](size_t begin, size_t end) {
    const uint64_t index = GetTokenIndex(s.substr(begin, end - begin));
    WriteInt(index * 2 + (end == s.size() ? 1 : 0));
  };
  size_t start = 0;
  for (size_t i = s.find_first_of(kSeparators); i != BytesView::npos;
       i = s.find_first_of(kSeparators, start)) {
    if (start != i) {
      write_reference(start, i);
    }
    write_reference(i, i + 1);
    start = i + 1;
  }
  if (start != s.size() || s.empty()) {
    write_reference(start, s.size());
  }
}

void CScopeInfoSerializer::WriteWholeStr(BytesView s) {
  const size_t size = s.size();
  // A string of fewer than eight bytes is copied and padded with zeros, so that everything below
  // can load whole words.
  char padded[kWordSize];
  BytesView whole = s;
  if (size < kWordSize) {
    if (size == 0) {
      fWriteBuffer.WriteInt(uint64_t{fTokens.GetTokenIndex(s)} * 2 + 1);
      return;
    }
    StoreWord(padded, LoadShort(s.data(), size));
    whole = BytesView(padded, kWordSize);
  }
  const char* const text = whole.data();
  const char* const last_word = text + whole.size() - kWordSize;
  size_t start = 0;
  for (size_t chunk = 0; start < size; chunk += kMostSearched) {
    const size_t left = size - chunk;
    // The rest of a long string can be shorter than the search requires; then it begins earlier.
    const size_t from = std::min(chunk, whole.size() - kWordSize);
    uint64_t found = SeparatorsOf(text + from, std::min(whole.size() - from, kMostSearched));
    found >>= chunk - from;
    // The end of the string ends a run like a separator.
    if (left < kMostSearched) {
      found |= uint64_t{1} << left;
    }
    for (; found != 0; found &= found - 1) {
      const size_t at = chunk + static_cast<size_t>(std::countr_zero(found));
      if (start != at) {
        const uint64_t index = fTokens.GetPieceIndex({text + start, at - start}, last_word);
        fWriteBuffer.WriteInt(index * 2 + (at == size ? 1 : 0));
      }
      if (at == size) {
        return;
      }
      start = at + 1;
      const uint64_t index = fTokens.GetByteIndex(text[at]);
      fWriteBuffer.WriteInt(index * 2 + (start == size ? 1 : 0));
    }
  }
}

void CScopeInfoSerializer::WriteStrDict(const CStrDict* dict) {
  if (dict == nullptr) {
    WriteInt(0);
    return;
  }
  WriteInt(dict->size());
  const bool by_pieces = OverridesPieces();
  const auto write = [&](const CStrDict::Item& item) {
    if (by_pieces) {
      WriteStr(item.first);
      WriteStr(item.second);
    } else {
      WriteWholeStr(item.first);
      WriteWholeStr(item.second);
    }
  };
  if (dict->IsAscending()) {
    for (const CStrDict::Item& item : *dict) {
      write(item);
    }
    return;
  }
  _fSorted.clear();
  for (const CStrDict::Item& item : *dict) {
    _fSorted.push_back(&item);
  }
  // In the order of code points, which for UTF-8 is the order of bytes.
  std::sort(_fSorted.begin(), _fSorted.end(),
            [](const auto* a, const auto* b) { return a->first < b->first; });
  for (const CStrDict::Item* item : _fSorted) {
    write(*item);
  }
}

void CScopeInfoSerializer::WriteTokens() {
  WriteInt(fTokens.size());
  if (!OverridesPieces()) {
    fWriteBuffer.WriteStr(fTokens.Table());
    return;
  }
  for (size_t index = 0; index < fTokens.size(); ++index) {
    const BytesView token = fTokens.Token(index);
    WriteInt(token.size());
    fWriteBuffer.WriteStr(token);
  }
}

Bytes CScopeInfoSerializer::FinishMessage() {
  // The table is written after the content; the returned copy has the two in the right order.
  const size_t content_size = fWriteBuffer.size();
  WriteTokens();
  const BytesView all = fWriteBuffer.View();
  Bytes data;
  data.reserve(all.size());
  data.append(all.substr(content_size)).append(all.substr(0, content_size));
  Clear();
  return data;
}

Bytes CScopeInfoSerializer::WriteScopeInfo(const CScopeInfo& info) {
  Prefetch(info);
  WriteStr(info.scope_ibytes);
  WriteStrDict(&info.type_equivs);
  WriteStrDict(OrNull(info._domains));
  WriteStrDict(OrNull(info.inst_type_equivs));
  WriteStrDict(OrNull(info._inst_domains));
  WriteInt(info.does_not_exist ? 1 : 0);
  return FinishMessage();
}

CScopeInfoPtr CScopeInfoSerializer::ReadScopeInfo(const CScopeInfoKey& key,
                                                  std::optional<DiskTime> disk_mtime,
                                                  bool incomplete, BytesView data) {
  try {
    __builtin_prefetch(&key);
    fEncodedReader.SetStr(data);
    key.Prefetch();
    _fBatch.Clear();
    fEncodedReader.ReadTokenizedStrInto(_fBatch);
    for (int dict = 0; dict < 4; ++dict) {
      fEncodedReader.ReadStrDictInto(_fBatch, true);
    }
    const bool does_not_exist = fEncodedReader.ReadInt() != 0;

    BytesView scope_ibytes;
    const CArena arena = _fBatch.Finish(&scope_ibytes);
    auto info = std::make_shared<CScopeInfo>(key, arena, scope_ibytes, disk_mtime, incomplete,
                                             does_not_exist);
    info->type_equivs = _fBatch.TakeNext(arena);
    // An empty dictionary becomes an absent one: the message does not distinguish the two.
    const auto take = [&](std::optional<CStrDict>& field) {
      CStrDict dict = _fBatch.TakeNext(arena);
      if (!dict.empty()) {
        field.emplace(std::move(dict));
      }
    };
    take(info->_domains);
    take(info->inst_type_equivs);
    take(info->_inst_domains);
    // FinishedBuilding is not called: it would only check again that the names are UTF-8.
    return info;
  } catch (const CValueError&) {
    return nullptr;
  }
}

Bytes CScopeInfoSerializer::SerializeScopesSeenDict(
    const CScopesSeenDict* scopes_seen_dict,
    const std::function<std::optional<uint64_t>(Loc)>& get_file_id_func) {
  if (scopes_seen_dict == nullptr) {
    return {};
  }
  CInsertionOrderedDict<Loc, DiskTime> reduced_dict;
  for (const auto& [scope, mtime] : *scopes_seen_dict) {
    reduced_dict.Set(scope.loc, mtime);
  }
  WriteInt(reduced_dict.size());
  for (const auto& [loc, mtime] : reduced_dict) {
    const std::optional<uint64_t> file_id = get_file_id_func(loc);
    Assert(file_id.has_value());
    if (!file_id) {
      throw CTypeError("no file id for " + loc.Repr());
    }
    WriteInt(*file_id);
    WriteStr(kWildcardScope);
    WriteInt(ULongLongValueForDoubleBits(mtime));
  }
  return FinishMessage();
}

CScopesSeenPtr CScopeInfoSerializer::DeserializeScopesSeenDict(
    BytesView serialized, const std::function<Loc(uint64_t)>& get_location_func) {
  if (serialized.empty()) {
    return nullptr;
  }
  auto scopes_seen_dict = std::make_shared<CScopesSeenDict>();
  fEncodedReader.SetStr(serialized);
  const uint64_t count = fEncodedReader.ReadInt();
  // No allocation depends on the count. Every entry takes at least three bytes, so with a count
  // that is too large the loop ends at the first read beyond the message.
  for (uint64_t i = 0; i < count; ++i) {
    const uint64_t file_id = fEncodedReader.ReadInt();
    Bytes scope_name = fEncodedReader.ReadTokenizedStr();
    const uint64_t mtime_as_longlong = fEncodedReader.ReadInt();
    const Loc loc = get_location_func(file_id);
    if (!loc) {
      PrintLine(FormatBraces("The loc is None when Deserializing seen dict: {}", {file_id}));
      continue;
    }
    scopes_seen_dict->Set(CScopeRef{loc, std::move(scope_name)},
                          DoubleValueForULongLongBits(mtime_as_longlong));
  }
  return scopes_seen_dict;
}

}  // namespace pysource::scopeinfo
