#include "pysource/standalone/sqlitedb/filetable.h"

#include "pysource/host/repr.h"
#include "pysource/standalone/sqlitedb/changelog.h"
#include "pysource/standalone/sqlitedb/schema.h"

namespace pysource::standalone::sqlitedb {

CFileRow CFileTable::RowAt(const CQuery& query, int first) {
  CFileRow row;
  row.known = true;
  row.id = query.IntAt(first);
  row.name = query.ViewAt(first + 1);
  row.sum = query.IntAt(first + 7);
  if (_fSum.Begin().Columns(query, first, first + 6).Sum() != row.sum) {
    ThrowDamagedRow("the row of the file " + Repr(row.name) + " is damaged");
  }
  row.disk_time = query.OptionalDoubleAt(first + 2);
  if (!query.IsNull(first + 3)) {
    row.scans_done = query.ViewAt(first + 3);
  }
  row.place = query.IntAt(first + 4);  // 0 for NULL
  row.tally = query.IntAt(first + 5);
  row.foreign_tally = query.IntAt(first + 6);
  return row;
}

int64_t CFileTable::SumOf(int64_t id, TextView name, const CFileState& state) {
  _fSum.Begin().Int(id).TextOf(name);
  state.disk_time ? _fSum.Double(*state.disk_time) : _fSum.Null();
  state.scans_done ? _fSum.TextOf(*state.scans_done) : _fSum.Null();
  state.place != 0 ? _fSum.Int(state.place) : _fSum.Null();
  return _fSum.Int(state.tally).Int(state.foreign_tally).Sum();
}

CFileRow CFileTable::Find(Loc loc) {
  const auto known = _fIds.find(loc);
  const Text name = known == _fIds.end() ? _fNames.NameOf(*loc) : Text();
  CFileRow row;
  row.id = known == _fIds.end() ? FirstFileId(name) : known->second;
  for (;; row.id = NextFileId(row.id)) {
    CQuery query = _fConnection.Use(EStatement::kFileById);
    if (!query.Int(row.id).Step()) {
      if (known != _fIds.end()) {
        ThrowDamagedRow("the row of " + loc->fUrl + " is missing");
      }
      if (_fLocs.contains(row.id)) {
        continue;  // reserved
      }
      CheckThatNoneIsMissing();
      return row;
    }
    if (known != _fIds.end() || query.ViewAt(1) == name) {
      row = RowAt(query, 0);
      Note(loc, row.id, false);
      return row;
    }
    (void)RowAt(query, 0);  // that it is another file's, and not ours with a damaged name
  }
}

void CFileTable::CheckThatNoneIsMissing() {
  if (_fNoneIsMissing) {
    return;
  }
  int64_t tally = 0;
  CQuery query = _fConnection.Use(EStatement::kFilesTally);
  while (query.Step()) {
    tally = query.IntAt(1) == 0 ? AddSums(tally, query.IntAt(0)) : TakeSum(tally, query.IntAt(0));
  }
  // Within a transaction, what it has put so far is not in the log yet.
  if (tally != _fChanges.Uncounted()) {
    ThrowDamagedRow("the row of a file is missing");
  }
  _fNoneIsMissing = true;
}

void CFileTable::FindEach(const std::vector<Loc>& locs,
                          const std::function<void(size_t, const CFileRow&)>& found) {
  if (locs.empty()) {
    return;
  }
  std::vector<Text> names;
  std::vector<int64_t> ids;
  names.reserve(locs.size());
  ids.reserve(locs.size());
  for (const Loc loc : locs) {
    names.push_back(_fNames.NameOf(*loc));
    const auto known = _fIds.find(loc);
    ids.push_back(known == _fIds.end() ? FirstFileId(names.back()) : known->second);
  }
  const Text json = JsonArray(ids);
  std::vector<size_t> elsewhere;
  size_t rows = 0;
  {
    CQuery query = _fConnection.Use(EStatement::kFilesByIds);
    query.TextOf(json);
    while (query.Step()) {
      ++rows;
      const auto index = static_cast<size_t>(query.IntAt(8));
      const CFileRow row = RowAt(query, 0);
      if (row.name != names[index]) {
        elsewhere.push_back(index);
        continue;
      }
      found(index, row);
    }
  }
  if (rows != locs.size()) {
    CheckThatNoneIsMissing();
  }
  // Another file has taken the first number of these.
  for (const size_t index : elsewhere) {
    if (const CFileRow row = Find(locs[index]); row.known) {
      found(index, row);
    }
  }
}

std::optional<int64_t> CFileTable::IdOf(Loc loc) {
  if (const auto known = _fIds.find(loc); known != _fIds.end()) {
    return known->second;
  }
  const CFileRow row = Find(loc);
  return row.known ? std::optional(row.id) : std::nullopt;
}

std::vector<std::optional<int64_t>> CFileTable::IdsOf(const std::vector<Loc>& locs) {
  std::vector<std::optional<int64_t>> ids(locs.size());
  std::vector<Loc> unknown;
  std::vector<size_t> unknown_index;
  for (size_t i = 0; i < locs.size(); ++i) {
    if (const auto known = _fIds.find(locs[i]); known != _fIds.end()) {
      ids[i] = known->second;
    } else {
      unknown.push_back(locs[i]);
      unknown_index.push_back(i);
    }
  }
  FindEach(unknown, [&](size_t index, const CFileRow& row) { ids[unknown_index[index]] = row.id; });
  return ids;
}

CFileRow CFileTable::RowToRepair(int64_t id) {
  CQuery query = _fConnection.Use(EStatement::kFileById);
  if (!query.Int(id).Step()) {
    ThrowDamagedRow("the row of a file is missing");
  }
  try {
    return RowAt(query, 0);
  } catch (const CSqliteFailure&) {
    CFileRow row;
    row.known = true;
    row.id = id;
    row.name = query.ViewAt(1);
    row.sum = query.IntAt(7);
    return row;
  }
}

bool CFileTable::Has(int64_t id) {
  return _fLocs.contains(id) || _fConnection.Use(EStatement::kFileById).Int(id).Step();
}

Loc CFileTable::LocOf(int64_t id) {
  if (const auto known = _fLocs.find(id); known != _fLocs.end()) {
    return known->second;
  }
  CQuery query = _fConnection.Use(EStatement::kFileById);
  if (!query.Int(id).Step()) {
    return {};
  }
  const Loc loc = LocOfName(RowAt(query, 0).name);
  if (loc) {
    Note(loc, id, false);
  }
  return loc;
}

Loc CFileTable::LocOfName(TextView name) const {
  const auto url = _fNames.UrlOf(name);
  return url ? _fLocCache.GetLocation(*url) : Loc();
}

int64_t CFileTable::IdToStore(Loc loc) {
  if (const auto known = _fIds.find(loc); known != _fIds.end()) {
    return known->second;
  }
  const CFileRow row = Find(loc);
  if (!row.known) {
    Put(loc, row, CFileState());
  }
  return row.id;
}

void CFileTable::Put(Loc loc, const CFileRow& row, const CFileState& state) {
  PutRow(row, row.known ? row.name : _fNames.NameOf(*loc), state);
  Note(loc, row.id, true);
}

void CFileTable::PutRow(const CFileRow& row, TextView name, const CFileState& state) {
  const int64_t sum = SumOf(row.id, name, state);
  CQuery query = _fConnection.Use(row.known ? EStatement::kSetFile : EStatement::kAddFile);
  query.Int(row.id).TextOf(name);
  state.disk_time ? query.Double(*state.disk_time) : query.Null();
  state.scans_done ? query.TextOf(*state.scans_done) : query.Null();
  state.place != 0 ? query.Int(state.place) : query.Null();
  query.Int(state.tally).Int(state.foreign_tally).Int(sum).Run();
  _fChanges.CountRow(sum, row.sum);
}

void CFileTable::Note(Loc loc, int64_t id, bool is_new) {
  if (_fIds.contains(loc)) {
    return;
  }
  // The interned object, which lives as long as the location cache; the caller's may not.
  const Loc interned = _fLocCache.GetLocation(loc->fUrl);
  _fIds.emplace(interned, id);
  _fLocs.emplace(id, interned);
  if (is_new) {
    _fNew.push_back(interned);
  }
}

void CFileTable::Undo() {
  for (const Loc loc : _fNew) {
    if (const auto known = _fIds.find(loc); known != _fIds.end()) {
      _fLocs.erase(known->second);
      _fIds.erase(known);
    }
  }
  _fNew.clear();
}

void CFileTable::Forget() {
  _fIds.clear();
  _fLocs.clear();
  _fNoneIsMissing = false;
}

}  // namespace pysource::standalone::sqlitedb
