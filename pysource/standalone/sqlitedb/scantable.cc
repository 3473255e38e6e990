#include "pysource/standalone/sqlitedb/scantable.h"

#include <algorithm>

namespace pysource::standalone::sqlitedb {

void CScanTable::Load() {
  _fScans.clear();
  CQuery query = _fConnection.Use(EStatement::kScans);
  while (query.Step()) {
    if (_fSum.Begin().Columns(query, 0, 1).Sum() != query.IntAt(2)) {
      ThrowDamagedRow("the name of a scan is damaged");
    }
    _fScans.emplace_back(query.IntAt(0), query.ViewAt(1));
  }
}

template <class IsWanted>
const std::pair<int64_t, Text>* CScanTable::Find(IsWanted is_wanted) {
  for (const bool again : {false, true}) {
    if (again) {
      Load();
    }
    for (const auto& scan : _fScans) {
      if (is_wanted(scan)) {
        return &scan;
      }
    }
  }
  return nullptr;
}

std::optional<int64_t> CScanTable::IdOf(TextView name) {
  const auto* const scan = Find([name](const auto& each) { return each.second == name; });
  return scan == nullptr ? std::nullopt : std::optional(scan->first);
}

const Text* CScanTable::NameOf(int64_t id) {
  const auto* const scan = Find([id](const auto& each) { return each.first == id; });
  return scan == nullptr ? nullptr : &scan->second;
}

int64_t CScanTable::IdToStore(TextView name) {
  if (const auto known = IdOf(name)) {
    return *known;
  }
  int64_t id = 1;
  for (const auto& [known, unused] : _fScans) {
    id = std::max(id, known + 1);
  }
  const int64_t sum = _fSum.Begin().Int(id).TextOf(name).Sum();
  _fConnection.Use(EStatement::kAddScan).Int(id).TextOf(name).Int(sum).Run();
  _fScans.emplace_back(id, name);
  _fHasNew = true;
  return id;
}

void CScanTable::Undo() {
  if (_fHasNew) {
    _fScans.clear();
  }
  _fHasNew = false;
}

}  // namespace pysource::standalone::sqlitedb
