// Encoding a record, compared with protobuf.
//
//   encode          from an existing record (the project) or message (protobuf) to bytes
//   encode-filled   from an existing record to bytes: the project encodes it; protobuf copies it
//                   into a message, which is reused, and serialises the message
//   encode-built    from names and values to bytes: the project makes a record and encodes it;
//                   protobuf makes a message and serialises it
//
// Both make a new string for each record. The project's bytes are canonical, in the order of the
// names; protobuf's keep the order in which the names were added.
#include <record.pb.h>

#include <utility>
#include <vector>

#include "bench/pairs/pair.h"
#include "bench/support/clock.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::bench {
namespace {

using ItemList = google::protobuf::RepeatedPtrField<proto::Item>;

void FillItems(const CStrDict* dict, ItemList* items) {
  if (dict == nullptr) {
    return;
  }
  for (const auto& [name, ibytes] : *dict) {
    proto::Item* const item = items->Add();
    item->set_name(name.data(), name.size());
    item->set_value(ibytes.data(), ibytes.size());
  }
}

const CStrDict* OrNull(const std::optional<CStrDict>& dict) { return dict ? &*dict : nullptr; }

void Fill(const scopeinfo::CScopeInfo& info, proto::Record& message) {
  message.set_scope_ibytes(info.scope_ibytes.data(), info.scope_ibytes.size());
  FillItems(&info.type_equivs, message.mutable_type_equivs());
  FillItems(OrNull(info._domains), message.mutable_domains());
  FillItems(OrNull(info.inst_type_equivs), message.mutable_inst_type_equivs());
  FillItems(OrNull(info._inst_domains), message.mutable_inst_domains());
  message.set_does_not_exist(info.does_not_exist);
}

void SetAll(const CStrDict* from, CStrDict& to) {
  for (const auto& [name, ibytes] : *from) {
    to.Set(name, ibytes);
  }
}

scopeinfo::CScopeInfoPtr Rebuilt(const scopeinfo::CScopeInfo& info) {
  auto made = std::make_shared<scopeinfo::CScopeInfo>(info.key, info.scope_ibytes, info.disk_mtime,
                                                      info.incomplete, info.does_not_exist);
  SetAll(&info.type_equivs, made->type_equivs);
  for (const auto field :
       {&scopeinfo::CScopeInfo::_domains, &scopeinfo::CScopeInfo::inst_type_equivs,
        &scopeinfo::CScopeInfo::_inst_domains}) {
    if (info.*field) {
      SetAll(&*(info.*field), ((*made).*field).emplace());
    }
  }
  made->FinishedBuilding();
  return made;
}

}  // namespace

void MeasureEncode(CBenchWorld&, const CCorpus& corpus) {
  const std::vector<scopeinfo::CScopeInfoPtr> records = corpus.Records();
  std::vector<proto::Record> messages(records.size());
  size_t project_bytes = 0;
  size_t peer_bytes = 0;
  scopeinfo::CScopeInfoSerializer serializer;
  for (size_t i = 0; i < records.size(); ++i) {
    Fill(*records[i], messages[i]);
    project_bytes += serializer.WriteScopeInfo(*records[i]).size();
    peer_bytes += messages[i].ByteSizeLong();
  }
  PrintFigures(
      "encoded-bytes", static_cast<double>(project_bytes) / static_cast<double>(records.size()),
      static_cast<double>(peer_bytes) / static_cast<double>(records.size()), "bytes", "protobuf");

  size_t sum = 0;  // so that the compiler cannot remove the work
  const auto encode = [&] {
    return TimeOf([&] {
      for (const auto& record : records) {
        sum += serializer.WriteScopeInfo(*record).size();
      }
    });
  };
  PrintPair("encode",
            InTurn(encode,
                   [&] {
                     return TimeOf([&] {
                       for (const proto::Record& message : messages) {
                         sum += message.SerializeAsString().size();
                       }
                     });
                   }),
            records.size(), "ns");
  proto::Record reused;
  PrintPair("encode-filled",
            InTurn(encode,
                   [&] {
                     return TimeOf([&] {
                       for (const auto& record : records) {
                         reused.Clear();
                         Fill(*record, reused);
                         sum += reused.SerializeAsString().size();
                       }
                     });
                   }),
            records.size(), "ns");
  PrintPair("encode-built",
            InTurn(
                [&] {
                  return TimeOf([&] {
                    for (const auto& record : records) {
                      sum += serializer.WriteScopeInfo(*Rebuilt(*record)).size();
                    }
                  });
                },
                [&] {
                  return TimeOf([&] {
                    for (const auto& record : records) {
                      proto::Record message;
                      Fill(*record, message);
                      sum += message.SerializeAsString().size();
                    }
                  });
                }),
            records.size(), "ns", sum == 0 ? "nothing" : "");
}

}  // namespace pysource::bench
