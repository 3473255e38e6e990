#include "pysource/standalone/sqlitedb/filetable.h"

#include "pysource/standalone/sqlitedb/schema.h"

namespace pysource::standalone::sqlitedb {

CFileRow CFileTable::Find(Loc loc) {
  CFileRow row;
  const auto known = _fIds.find(loc);
  const Text name = known == _fIds.end() ? _fNames.NameOf(*loc) : Text();
  row.id = known == _fIds.end() ? FirstFileId(name) : known->second;
  for (;; row.id = NextFileId(row.id)) {
    CQuery query = _fConnection.Use(EStatement::kFileById);
    if (!query.Int(row.id).Step()) {
      return row;
    }
    if (known != _fIds.end() || query.ViewAt(0) == name) {
      row.known = true;
      row.disk_time = query.OptionalDoubleAt(1);
      if (!query.IsNull(2)) {
        row.scans_done = query.ViewAt(2);
      }
      row.place = query.IntAt(3);  // 0 for NULL
      Note(loc, row.id, false);
      return row;
    }
  }
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
  {
    CQuery query = _fConnection.Use(EStatement::kFilesByIds);
    query.TextOf(json);
    while (query.Step()) {
      const auto index = static_cast<size_t>(query.IntAt(0));
      if (query.ViewAt(1) != names[index]) {
        elsewhere.push_back(index);
        continue;
      }
      CFileRow row;
      row.id = ids[index];
      row.known = true;
      row.disk_time = query.OptionalDoubleAt(2);
      if (!query.IsNull(3)) {
        row.scans_done = query.ViewAt(3);
      }
      found(index, row);
    }
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

Loc CFileTable::LocOf(int64_t id) {
  if (const auto known = _fLocs.find(id); known != _fLocs.end()) {
    return known->second;
  }
  CQuery query = _fConnection.Use(EStatement::kFileNameById);
  if (!query.Int(id).Step()) {
    return {};
  }
  const Loc loc = LocOfName(query.ViewAt(0));
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
    const Text name = _fNames.NameOf(*loc);
    _fConnection.Use(EStatement::kAddFile).Int(row.id).TextOf(name).Null().Null().Null().Run();
    Note(loc, row.id, true);
  }
  return row.id;
}

void CFileTable::Put(Loc loc, const CFileRow& row, DiskTime disk_time, TextView scans_done,
                     int64_t place) {
  CQuery query = _fConnection.Use(row.known ? EStatement::kSetFile : EStatement::kAddFile);
  query.Int(row.id);
  Text name;
  if (!row.known) {
    name = _fNames.NameOf(*loc);
    query.TextOf(name);
  }
  query.Double(disk_time).TextOf(scans_done);
  (place == 0 ? query.Null() : query.Int(place)).Run();
  Note(loc, row.id, true);
}

void CFileTable::Clear(int64_t id) {
  _fConnection.Use(EStatement::kSetFile).Int(id).Null().Null().Null().Run();
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
}

}  // namespace pysource::standalone::sqlitedb
