#include "pysource/standalone/sqlitedb/losttable.h"

#include <algorithm>

#include "pysource/standalone/sqlitedb/schema.h"

namespace pysource::standalone::sqlitedb {
namespace {

void CheckRow(CRowSum& sum, const CQuery& query) {
  if (sum.Begin().Columns(query, 0, 2).Sum() != query.IntAt(3)) {
    ThrowDamagedRow("a row of the lost ones is damaged");
  }
}

}  // namespace

std::vector<Loc> CLostTable::Sources(CFileTable& files) {
  std::vector<Loc> sources;
  const auto statement =
      _fConnection.Prepare("SELECT source, target, seq, sum FROM lost ORDER BY source");
  for (CQuery query(statement.get()); query.Step();) {
    CheckRow(_fSum, query);
    const Loc loc = files.LocOf(query.IntAt(0));
    if (loc && (sources.empty() || sources.back() != loc)) {
      sources.push_back(loc);
    }
  }
  return sources;
}

std::vector<CLostTable::CRow> CLostTable::RowsOf(int64_t source) {
  std::vector<CRow> rows;
  CQuery query = _fConnection.Use(EStatement::kLostOf);
  query.Int(source);
  while (query.Step()) {
    CheckRow(_fSum, query);
    rows.push_back({query.IntAt(1), query.IntAt(2), query.IntAt(3)});
  }
  return rows;
}

void CLostTable::Note(int64_t target, int64_t place) {
  std::vector<int64_t> sources;
  {
    CQuery query = _fConnection.Use(EStatement::kLostSources);
    query.Int(place).Int(place + kPlaceSpan - 1);
    while (query.Step()) {
      sources.push_back(query.IntAt(0));
    }
  }
  for (const int64_t source : sources) {
    const int64_t seq = _fChanges.Next();
    const int64_t sum = _fSum.Begin().Int(source).Int(target).Int(seq).Sum();
    const std::vector<CRow> rows = RowsOf(source);
    const auto old = std::find_if(rows.begin(), rows.end(),
                                  [target](const CRow& row) { return row.target == target; });
    _fConnection.Use(EStatement::kNoteLost).Int(source).Int(target).Int(seq).Int(sum).Run();
    _fChanges.CountRow(sum, old == rows.end() ? 0 : old->sum);
  }
}

void CLostTable::Forget(int64_t source, std::optional<int64_t> target) {
  for (const CRow& row : RowsOf(source)) {
    if ((!target || *target == row.target) && _fChanges.HasHeardOf(row.seq)) {
      _fConnection.Use(EStatement::kForgetLost).Int(source).Int(row.target).Run();
      _fChanges.CountRow(0, row.sum);
    }
  }
}

}  // namespace pysource::standalone::sqlitedb
