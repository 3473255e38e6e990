#include "pysource/standalone/engine/filerows.h"

#include <utility>

#include "pysource/scopeinfo/filestate/equivs.h"

namespace pysource::standalone {
namespace {

bool SameDict(const std::optional<CStrDict>& a, const std::optional<CStrDict>& b) {
  const bool a_empty = !a || a->empty();
  const bool b_empty = !b || b->empty();
  return a_empty || b_empty ? a_empty == b_empty : *a == *b;
}

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

bool SameContent(const scopeinfo::CScopeInfo& a, const scopeinfo::CScopeInfo& b) {
  return a.type_equivs == b.type_equivs && SameDict(a._domains, b._domains) &&
         SameDict(a.inst_type_equivs, b.inst_type_equivs) &&
         SameDict(a._inst_domains, b._inst_domains) && a.scope_ibytes == b.scope_ibytes &&
         a.scope_kind == b.scope_kind && a.does_not_exist == b.does_not_exist;
}

}  // namespace pysource::standalone
