#include "pysource/standalone/sqlitedb/losttable.h"

#include "pysource/standalone/sqlitedb/schema.h"

namespace pysource::standalone::sqlitedb {

std::vector<Loc> CLostTable::Sources(CFileTable& files) {
  std::vector<Loc> sources;
  const auto statement = _fConnection.Prepare("SELECT DISTINCT source FROM lost");
  for (CQuery query(statement.get()); query.Step();) {
    if (const Loc loc = files.LocOf(query.IntAt(0))) {
      sources.push_back(loc);
    }
  }
  return sources;
}

void CLostTable::Note(int64_t target, int64_t place) {
  const int64_t last = place + kPlaceSpan - 1;
  _fConnection.Use(EStatement::kNoteLost).Int(place).Int(last).Int(target).Run();
}

void CLostTable::Forget(int64_t source, std::optional<int64_t> target) {
  std::vector<int64_t> found;
  {
    CQuery query = _fConnection.Use(EStatement::kLostOf);
    query.Int(source);
    while (query.Step()) {
      if ((!target || *target == query.IntAt(0)) && _fChanges.HasHeardOf(query.IntAt(1))) {
        found.push_back(query.IntAt(0));
      }
    }
  }
  for (const int64_t id : found) {
    _fConnection.Use(EStatement::kForgetLost).Int(source).Int(id).Run();
  }
}

}  // namespace pysource::standalone::sqlitedb
