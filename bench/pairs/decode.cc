// Decoding a record, compared with msgpack-cxx's visitor.
//
// Both give a CScopeInfo with one block of memory and dictionaries over that block, and check that
// the names are UTF-8. The peer's message holds the names in ascending order and begins with the
// number of items, so that its block can be allocated with the right size at once: the message is
// copied there whole, and the views point into the copy.
#include <cstring>
#include <msgpack.hpp>
#include <vector>

#include "bench/pairs/pair.h"
#include "bench/support/clock.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::bench {
namespace {

using scopeinfo::CScopeInfo;
using scopeinfo::CScopeInfoPtr;

constexpr size_t kDicts = 4;

std::array<const CStrDict*, kDicts> DictsOf(const CScopeInfo& info) {
  const auto or_null = [](const std::optional<CStrDict>& dict) { return dict ? &*dict : nullptr; };
  return {&info.type_equivs, or_null(info._domains), or_null(info.inst_type_equivs),
          or_null(info._inst_domains)};
}

// [number of items, scope info bytes, {...}, {...}, {...}, {...}, does not exist]
Bytes Pack(const CScopeInfo& info) {
  msgpack::sbuffer buffer;
  msgpack::packer<msgpack::sbuffer> packer(buffer);
  const auto str = [&packer](TextView text) {
    packer.pack_str(static_cast<uint32_t>(text.size()));
    packer.pack_str_body(text.data(), static_cast<uint32_t>(text.size()));
  };
  size_t items = 0;
  for (const CStrDict* const dict : DictsOf(info)) {
    items += dict == nullptr ? 0 : dict->size();
  }
  packer.pack_array(3 + kDicts);
  packer.pack(static_cast<uint64_t>(items));
  str(info.scope_ibytes);
  for (const CStrDict* const dict : DictsOf(info)) {
    if (dict == nullptr) {
      packer.pack_map(0);
      continue;
    }
    std::vector<CStrDict::Item> sorted(dict->begin(), dict->end());
    std::sort(sorted.begin(), sorted.end(),
              [](const auto& a, const auto& b) { return a.first < b.first; });
    packer.pack_map(static_cast<uint32_t>(sorted.size()));
    for (const auto& [name, ibytes] : sorted) {
      str(name);
      str(ibytes);
    }
  }
  packer.pack(info.does_not_exist);
  return {buffer.data(), buffer.size()};
}

class CRecordVisitor : public msgpack::null_visitor {
 public:
  explicit CRecordVisitor(BytesView message) : _fMessage(message) {}

  bool visit_positive_integer(uint64_t items) {
    _fArena = CArena(_fMessage.size() + items * sizeof(CStrDict::Item) +
                     kDicts * alignof(CStrDict::Item));
    char* const copy = static_cast<char*>(_fArena.Allocate(_fMessage.size(), 1));
    std::memcpy(copy, _fMessage.data(), _fMessage.size());
    _fOffset = copy - _fMessage.data();
    return true;
  }
  bool visit_boolean(bool value) {
    fDoesNotExist = value;
    return true;
  }
  bool visit_str(const char* text, uint32_t size) {
    const BytesView view(text + _fOffset, size);
    if (_fDict == 0) {
      fScopeIbytes = view;
    } else if (_fInKey) {
      _fName = view;
    } else {
      fDicts[_fDict - 1].SetStored(_fName, view);
    }
    return true;
  }
  bool start_map(uint32_t size) {
    if (size != 0) {
      fDicts[_fDict] = CStrDict(_fArena, size);
    }
    ++_fDict;
    return true;
  }
  bool start_map_key() {
    _fInKey = true;
    return true;
  }
  bool end_map_key() {
    _fInKey = false;
    return true;
  }

  CScopeInfoPtr Take(const scopeinfo::CScopeInfoKey& key, std::optional<DiskTime> disk_mtime) {
    auto info = std::make_shared<CScopeInfo>(key, std::move(_fArena), fScopeIbytes, disk_mtime,
                                             false, fDoesNotExist);
    info->type_equivs = std::move(fDicts[0]);
    const auto take = [](std::optional<CStrDict>& field, CStrDict& dict) {
      if (!dict.empty()) {
        field = std::move(dict);
      }
    };
    take(info->_domains, fDicts[1]);
    take(info->inst_type_equivs, fDicts[2]);
    take(info->_inst_domains, fDicts[3]);
    info->FinishedBuilding();
    return info;
  }

  BytesView fScopeIbytes;
  bool fDoesNotExist = false;
  std::array<CStrDict, kDicts> fDicts;

 private:
  const BytesView _fMessage;
  CArena _fArena;
  ptrdiff_t _fOffset = 0;  // the distance from the message to its copy
  size_t _fDict = 0;
  bool _fInKey = false;
  TextView _fName;
};

CScopeInfoPtr Unpack(const scopeinfo::CScopeInfoKey& key, std::optional<DiskTime> disk_mtime,
                     BytesView message) {
  CRecordVisitor visitor(message);
  size_t offset = 0;
  return msgpack::parse(message.data(), message.size(), offset, visitor)
             ? visitor.Take(key, disk_mtime)
             : nullptr;
}

}  // namespace

void MeasureDecode(CBenchWorld&, const CCorpus& corpus) {
  const std::vector<CScopeInfoPtr> records = corpus.Records();
  scopeinfo::CScopeInfoSerializer serializer;
  std::vector<Bytes> packed;
  size_t project_bytes = 0;
  size_t peer_bytes = 0;
  size_t most_allocations = 0;
  for (const CScopeInfoPtr& record : records) {
    packed.push_back(Pack(*record));
    project_bytes += record->_serialized_data->size();
    peer_bytes += packed.back().size();
    const CScopeInfoPtr peers = Unpack(record->key, record->disk_mtime, packed.back());
    const size_t before = AllocationCount();
    const CScopeInfoPtr own =
        serializer.ReadScopeInfo(record->key, record->disk_mtime, false, *record->_serialized_data);
    most_allocations = std::max(most_allocations, AllocationCount() - before);
    if (peers == nullptr || own->scope_ibytes != peers->scope_ibytes ||
        own->type_equivs != peers->type_equivs ||
        own->inst_type_equivs != peers->inst_type_equivs) {
      throw std::logic_error("the two decoders differ about " + record->Repr());
    }
  }
  // In the first round, the scratch memory grows to the size of the largest record.
  most_allocations = 0;
  for (const CScopeInfoPtr& record : records) {
    const size_t before = AllocationCount();
    (void)serializer.ReadScopeInfo(record->key, record->disk_mtime, false,
                                   *record->_serialized_data);
    most_allocations = std::max(most_allocations, AllocationCount() - before);
  }
  const auto count = static_cast<double>(records.size());
  PrintFigures("packed-bytes", static_cast<double>(project_bytes) / count,
               static_cast<double>(peer_bytes) / count, "bytes", "msgpack");
  PrintFigures("decode-allocations", static_cast<double>(most_allocations), 3, "allocations",
               "the most that any record took");

  size_t found = 0;
  const CPairTimes times = InTurn(
      [&] {
        return TimeOf([&] {
          for (const CScopeInfoPtr& record : records) {
            found += serializer.ReadScopeInfo(record->key, record->disk_mtime, false,
                                              *record->_serialized_data) != nullptr;
          }
        });
      },
      [&] {
        return TimeOf([&] {
          for (size_t i = 0; i < records.size(); ++i) {
            found += Unpack(records[i]->key, records[i]->disk_mtime, packed[i]) != nullptr;
          }
        });
      });
  PrintPair("decode", times, records.size(), "ns", found == 0 ? "nothing" : "");
}

}  // namespace pysource::bench
