#include "pysource/standalone/engine/filerows.h"

#include <utility>

#include "pysource/scopeinfo/filestate/equivs.h"

namespace pysource::standalone {
namespace {

std::optional<Text> ToText(std::optional<TextView> view) {
  return view ? std::optional<Text>(*view) : std::nullopt;
}

std::optional<TextView> ToView(const std::optional<Text>& text) {
  return text ? std::optional<TextView>(*text) : std::nullopt;
}

}  // namespace

CDatabaseRecord MakeRow(const scopeinfo::CScopeInfo& info) {
  scopeinfo::CEquivStrings equivs = scopeinfo::CollectEquivs(info);
  CDatabaseRecord row;
  row.for_loc = info.loc;
  row.for_scope = info.for_scope;
  row.scan_name = ToText(info.key.scan_name());
  row.scanned_loc = info.scanned_loc;
  row.scanned_scope = ToText(info.scanned_scope);
  row.scopes_seen = info.scope_seen_dict;
  row.class_equivs = std::move(equivs.class_equivs);
  row.import_equivs = std::move(equivs.import_equivs);
  row.data = std::move(*info._serialized_data);
  info._serialized_data.reset();
  return row;
}

scopeinfo::CScopeInfoPtr ReadRow(scopeinfo::CScopeInfoSerializer& serializer,
                                 const CDatabaseRecord& row, DiskTime disk_mtime) {
  const scopeinfo::CScopeInfoKey key(row.for_loc, row.for_scope, ToView(row.scan_name),
                                     row.scanned_loc, ToView(row.scanned_scope));
  scopeinfo::CScopeInfoPtr info = serializer.ReadScopeInfo(key, disk_mtime, false, row.data);
  if (info != nullptr) {
    info->scope_seen_dict = row.scopes_seen;
  }
  return info;
}

}  // namespace pysource::standalone
