#include "pysource/standalone/sqlitedb/contenttable.h"

#include <bit>

namespace pysource::standalone::sqlitedb {

CContentMark CContentTable::MarkAt(const CQuery& query, int column) {
  return {std::bit_cast<uint64_t>(query.IntAt(column)), query.DoubleAt(column + 1)};
}

std::optional<CContentMark> CContentTable::Find(int64_t file) {
  CQuery query = _fConnection.Use(EStatement::kContentOf);
  return query.Int(file).Step() ? std::optional(MarkAt(query, 0)) : std::nullopt;
}

void CContentTable::Visit(const std::function<void(int64_t, const CContentMark&)>& visit) {
  const auto statement =
      _fConnection.Prepare("SELECT file, seal, disk_time FROM contents ORDER BY file");
  for (CQuery query(statement.get()); query.Step();) {
    visit(query.IntAt(0), MarkAt(query, 1));
  }
}

void CContentTable::Put(int64_t file, const CContentMark& mark) {
  CQuery query = _fConnection.Use(EStatement::kPutContent);
  query.Int(file).Int(std::bit_cast<int64_t>(mark.seal)).Double(mark.disk_time).Run();
}

}  // namespace pysource::standalone::sqlitedb
