#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

#include <algorithm>
#include <array>
#include <memory>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/logger.h"
#include "pysource/host/repr.h"
#include "pysource/host/symbolinfo.h"

namespace pysource::scopeinfo {
namespace {

constexpr std::array<bool, 256> MakeSeparators() {
  std::array<bool, 256> is_separator{};
  for (const char c : {' ', '(', ')', ',', '.', '[', ']'}) {
    is_separator[static_cast<unsigned char>(c)] = true;
  }
  return is_separator;
}

constexpr std::array<bool, 256> kIsSeparator = MakeSeparators();

bool IsSeparator(char c) { return kIsSeparator[static_cast<unsigned char>(c)]; }

const CStrDict* OrNull(const std::optional<CStrDict>& dict) { return dict ? &*dict : nullptr; }

}  // namespace

CScopeInfoSerializer::CScopeInfoSerializer() = default;
CScopeInfoSerializer::~CScopeInfoSerializer() = default;

void CScopeInfoSerializer::Clear() {
  fWriteBuffer.Reset();
  fTokens.clear();
}

void CScopeInfoSerializer::WriteInt(uint64_t value) {
  if (value < 128) {
    fWriteBuffer.WriteByte(static_cast<uint8_t>(0x80 + value));
    return;
  }
  do {
    const auto bits = static_cast<uint8_t>(value & 0x3F);
    value >>= 6;
    fWriteBuffer.WriteByte(static_cast<uint8_t>(bits + (value != 0 ? 0x40 : 0xC0)));
  } while (value != 0);
}

void CScopeInfoSerializer::WriteStr(std::optional<BytesView> s) {
  if (!s) {
    throw CTypeError("an absent string cannot be written");
  }
  const size_t size = s->size();
  const auto write_reference = [&](size_t begin, size_t end) {
    const uint64_t index = GetTokenIndex(s->substr(begin, end - begin));
    WriteInt(index * 2 + (end == size ? 1 : 0));
  };
  size_t start = 0;
  for (size_t i = 0; i < size; ++i) {
    if (IsSeparator((*s)[i])) {
      if (start != i) {
        write_reference(start, i);
      }
      write_reference(i, i + 1);
      start = i + 1;
    }
  }
  if (start != size || size == 0) {
    write_reference(start, size);
  }
}

void CScopeInfoSerializer::WriteStrDict(const CStrDict* dict) {
  if (dict == nullptr) {
    WriteInt(0);
    return;
  }
  WriteInt(dict->size());
  if (dict->IsAscending()) {
    for (const auto& [name, ibytes] : *dict) {
      WriteStr(name);
      WriteStr(ibytes);
    }
    return;
  }
  _fSorted.clear();
  for (const CStrDict::Item& item : *dict) {
    _fSorted.push_back(&item);
  }
  // By code point, which for UTF-8 is by byte.
  std::sort(_fSorted.begin(), _fSorted.end(),
            [](const auto* a, const auto* b) { return a->first < b->first; });
  for (const CStrDict::Item* item : _fSorted) {
    WriteStr(item->first);
    WriteStr(item->second);
  }
}

void CScopeInfoSerializer::WriteTokens() {
  WriteInt(fTokens.size());
  for (size_t index = 0; index < fTokens.size(); ++index) {
    const BytesView token = fTokens.Token(index);
    WriteInt(token.size());
    fWriteBuffer.WriteStr(token);
  }
}

Bytes CScopeInfoSerializer::FinishMessage() {
  _fContent.assign(fWriteBuffer.View());
  fWriteBuffer.Reset();
  WriteTokens();
  fWriteBuffer.WriteStr(_fContent);
  Bytes data = fWriteBuffer.ToString();
  Clear();
  return data;
}

Bytes CScopeInfoSerializer::WriteScopeInfo(const CScopeInfo& info) {
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
    fEncodedReader.SetStr(data);
    _fBatch.Clear();
    fEncodedReader.ReadTokenizedStrInto(_fBatch);
    for (int dict = 0; dict < 4; ++dict) {
      fEncodedReader.ReadStrDictInto(_fBatch, true);
    }
    const bool does_not_exist = fEncodedReader.ReadInt() != 0;

    BytesView scope_ibytes;
    std::array<CStrDict, CStrDictBatch::kMostDicts> dicts;
    CArena arena = _fBatch.Finish(&scope_ibytes, dicts.data());
    auto info = std::make_shared<CScopeInfo>(key, std::move(arena), scope_ibytes, disk_mtime,
                                             incomplete, does_not_exist);
    info->type_equivs = std::move(dicts[0]);
    // An empty dictionary is dropped: in the message it cannot be told from an absent one.
    const auto take = [](std::optional<CStrDict>& field, CStrDict& dict) {
      if (!dict.empty()) {
        field = std::move(dict);
      }
    };
    take(info->_domains, dicts[1]);
    take(info->inst_type_equivs, dicts[2]);
    take(info->_inst_domains, dicts[3]);
    info->FinishedBuilding();
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
  // Every entry takes three bytes at least, so a count that promises too much ends at the first
  // read behind the message.
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
