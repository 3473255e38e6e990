#include "pysource/standalone/sqlitedb/recordtable.h"

#include <algorithm>
#include <array>
#include <bit>
#include <numeric>
#include <tuple>

#include "pysource/host/errors.h"
#include "pysource/host/logger.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/standalone/sqlitedb/schema.h"

namespace pysource::standalone::sqlitedb {
namespace {

bool SameBits(DiskTime a, DiskTime b) {
  return std::bit_cast<uint64_t>(a) == std::bit_cast<uint64_t>(b);
}

// By scope, scan, scanned file and scanned scope; absent comes first.
bool InOrder(const CDatabaseRecord& a, const CDatabaseRecord& b) {
  if (const int order = a.for_scope.compare(b.for_scope); order != 0) {
    return order < 0;
  }
  if (a.scan_name != b.scan_name) {
    return a.scan_name < b.scan_name;
  }
  if (!(a.scanned_loc == b.scanned_loc)) {
    return !a.scanned_loc || (b.scanned_loc && a.scanned_loc < b.scanned_loc);
  }
  return a.scanned_scope < b.scanned_scope;
}

// Sorts by moving each record once: they are big.
std::vector<CDatabaseRecord> Sorted(std::vector<CDatabaseRecord> records) {
  if (std::is_sorted(records.begin(), records.end(), InOrder)) {
    return records;
  }
  std::vector<size_t> order(records.size());
  std::iota(order.begin(), order.end(), size_t{0});
  std::sort(order.begin(), order.end(),
            [&records](size_t a, size_t b) { return InOrder(records[a], records[b]); });
  std::vector<CDatabaseRecord> result;
  result.reserve(records.size());
  for (const size_t index : order) {
    result.push_back(std::move(records[index]));
  }
  return result;
}

// Whether the record has seen just its own file, at the file's time.
bool SeenItselfOnly(const CDatabaseRecord& record, Loc for_loc, DiskTime disk_time) {
  if (!record.scopes_seen || record.scopes_seen->empty()) {
    return false;
  }
  DiskTime time = 0;
  for (const auto& [scope, mtime] : *record.scopes_seen) {
    if (!(scope.loc == for_loc)) {
      return false;
    }
    time = mtime;
  }
  return SameBits(time, disk_time);
}

}  // namespace

// ---- Reading

std::vector<Text> CRecordTable::ReadScopeNames(Loc loc, TextView scan, DiskTime disk_time) {
  std::vector<Text> names;
  const auto file = _fFiles.IdOf(loc);
  const auto scan_id = _fScans.IdOf(scan);
  if (!file || !scan_id) {
    return names;
  }
  CQuery query = _fConnection.Use(EStatement::kScopeNames);
  query.Int(*file).Double(disk_time).Int(*scan_id);
  while (query.Step()) {
    names.emplace_back(query.ViewAt(0));
  }
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

std::vector<CDatabaseRecord> CRecordTable::Read(Loc loc, const std::vector<Text>& scan_names,
                                                const std::vector<Text>& scope_names,
                                                DiskTime disk_time) {
  std::vector<CDatabaseRecord> records;
  const auto file = _fFiles.IdOf(loc);
  if (!file) {
    return records;
  }
  std::vector<int64_t> scans;
  for (const Text& name : scan_names) {
    if (const auto scan = _fScans.IdOf(name)) {
      scans.push_back(*scan);
    }
  }
  std::vector<TextView> scopes(scope_names.begin(), scope_names.end());
  std::sort(scopes.begin(), scopes.end());
  const bool all = std::binary_search(scopes.begin(), scopes.end(), kWildcardScope);
  if (scans.empty() || scopes.empty()) {
    return records;
  }

  const auto read = [&](CQuery& query) {
    while (query.Step()) {
      const auto scan = query.OptionalIntAt(1);
      if (scan && std::find(scans.begin(), scans.end(), *scan) != scans.end() &&
          (all || std::binary_search(scopes.begin(), scopes.end(), query.ViewAt(0)))) {
        CDatabaseRecord record;
        if (const Text error = ReadRow(query, 0, loc, disk_time, record); error.empty()) {
          records.push_back(std::move(record));
        } else {
          CriticalLog("%s: a damaged row was left out: %s, scope %r: %s", _fShown, loc->fUrl,
                      record.for_scope, error);
        }
      }
    }
  };
  if (all) {
    CQuery query = _fConnection.Use(EStatement::kRecordsAll);
    read(query.Int(*file).Double(disk_time));
  } else if (scopes.size() == 1) {
    CQuery query = _fConnection.Use(EStatement::kRecordsOne);
    read(query.Int(*file).Double(disk_time).Int(ScopeOffset(scopes[0])));
  } else {
    // Two names of one hash are one range.
    std::vector<int64_t> offsets;
    offsets.reserve(scopes.size());
    for (const TextView scope : scopes) {
      offsets.push_back(ScopeOffset(scope));
    }
    std::sort(offsets.begin(), offsets.end());
    offsets.erase(std::unique(offsets.begin(), offsets.end()), offsets.end());
    const Text json = JsonArray(offsets);
    CQuery query = _fConnection.Use(EStatement::kRecordsMany);
    read(query.Int(*file).Double(disk_time).TextOf(json));
  }
  return Sorted(std::move(records));
}

void CRecordTable::ReadEquivs(EStatement statement, const std::vector<Loc>& locs, TextView scan,
                              const std::function<void(size_t, const Text&, const Bytes&)>& take) {
  const auto scan_id = _fScans.IdOf(scan);
  if (!scan_id) {
    return;
  }
  std::vector<int64_t> asked;
  std::vector<size_t> asked_index;
  const auto ids = _fFiles.IdsOf(locs);
  for (size_t i = 0; i < ids.size(); ++i) {
    if (ids[i]) {
      asked.push_back(*ids[i]);
      asked_index.push_back(i);
    }
  }
  std::vector<std::tuple<size_t, Text, Bytes>> found;
  const Text json = JsonArray(asked);
  CQuery query = _fConnection.Use(statement);
  query.TextOf(json).Int(*scan_id);
  while (query.Step()) {
    found.emplace_back(asked_index[static_cast<size_t>(query.IntAt(0))], query.ViewAt(1),
                       query.ViewAt(2));
  }
  std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
    return std::tie(std::get<0>(a), std::get<1>(a)) < std::tie(std::get<0>(b), std::get<1>(b));
  });
  for (const auto& [index, scope, equivs] : found) {
    take(index, scope, equivs);
  }
}

Text CRecordTable::ReadRow(CQuery& query, int first, Loc for_loc, DiskTime disk_time,
                           CDatabaseRecord& record) {
  record.for_loc = for_loc;
  record.for_scope = query.ViewAt(first);
  record.class_equivs = query.ViewAt(first + 5);
  record.import_equivs = query.ViewAt(first + 6);
  record.data = query.ViewAt(first + 7);
  if (const auto scan = query.OptionalIntAt(first + 1)) {
    const Text* const name = _fScans.NameOf(*scan);
    if (name == nullptr) {
      return "its scan " + std::to_string(*scan) + " is not known";
    }
    record.scan_name = *name;
  }
  record.scanned_loc = for_loc;
  if (const auto file = query.OptionalIntAt(first + 2)) {
    record.scanned_loc = *file == kAbsentFile ? Loc() : _fFiles.LocOf(*file);
    if (*file != kAbsentFile && !record.scanned_loc) {
      return "its scanned file " + std::to_string(*file) + " is not known";
    }
  }
  switch (query.Type(first + 3)) {
    case SQLITE_NULL:
      record.scanned_scope = record.for_scope;
      break;
    case SQLITE_INTEGER:
      break;
    default:
      record.scanned_scope = query.ViewAt(first + 3);
  }
  try {
    record.scopes_seen = ReadScopesSeen(query, first + 4, for_loc, disk_time,
                                        [this](int64_t id) { return _fFiles.LocOf(id); });
  } catch (const CValueError& error) {
    return std::string("its scopes seen are damaged: ") + error.what();
  }
  return {};
}

CScopesSeenPtr CRecordTable::ReadScopesSeen(CQuery& query, int column, Loc for_loc,
                                            DiskTime disk_time,
                                            const std::function<Loc(int64_t)>& loc_of) {
  if (!query.IsNull(column)) {
    return _fSerializer.DeserializeScopesSeenDict(query.ViewAt(column), [&](uint64_t id) {
      const Loc loc = id > kMaxFileId ? Loc() : loc_of(static_cast<int64_t>(id));
      // A record must not lose one of its dependencies without a word.
      if (!loc) {
        throw CValueError("the file " + std::to_string(id) + " is not known");
      }
      return loc;
    });
  }
  if (!for_loc) {
    return nullptr;
  }
  auto itself = std::make_shared<CScopesSeenDict>();
  itself->Set(CScopeRef{for_loc, Text(kWildcardScope)}, disk_time);
  return itself;
}

// ---- Writing

int64_t CRecordTable::NewPlace() {
  CQuery query = _fConnection.Use(EStatement::kLastRecordId);
  query.Step();
  const int64_t last = query.IsNull(0) ? 0 : query.IntAt(0);
  const int64_t place = (last / kPlaceSpan + 1) * kPlaceSpan;
  if (last < 0 || place > INT64_MAX - kPlaceSpan - kPlaceSpan) {
    throw CSqliteFailure(SQLITE_FULL, "there is no room for another file");
  }
  return place;
}

void CRecordTable::Put(Loc for_loc, int64_t file, int64_t place, bool replacing,
                       const std::vector<CDatabaseRecord>& records, DiskTime disk_time) {
  // In the order in which they will lie.
  std::vector<std::pair<int64_t, size_t>> order;
  order.reserve(records.size());
  for (size_t i = 0; i < records.size(); ++i) {
    order.emplace_back(ScopeOffset(records[i].for_scope), i);
  }
  std::sort(order.begin(), order.end());

  std::vector<CRowToPut> to_put;
  to_put.reserve(records.size());
  CStoredRows rows;  // those that lie there, and those that are to be put there
  int64_t next = 0;
  for (size_t at = 0; at < order.size(); ++at) {
    const auto& [offset, index] = order[at];
    const CDatabaseRecord& record = records[index];
    if (at == 0 || order[at - 1].first != offset) {
      rows.by_id.clear();
      rows.texts.clear();
      next = place + offset;
      if (replacing) {
        ReadKeys(place + offset, rows);
        next = rows.by_id.empty() ? next : rows.by_id.back().first + 1;
      }
    }
    const CStoredKey key = KeyOf(record, for_loc);
    const auto same = std::find_if(rows.by_id.begin(), rows.by_id.end(),
                                   [&key](const auto& row) { return row.second == key; });
    const int64_t id = same == rows.by_id.end() ? next++ : same->first;
    if (id >= place + offset + kScopeSpan) {
      throw CSqliteFailure(SQLITE_FULL, "too many records of one scope");
    }
    if (same == rows.by_id.end()) {
      rows.by_id.emplace_back(id, key);
    }
    to_put.push_back({id, key, &record});
  }

  for (std::span<const CRowToPut> left = to_put; !left.empty();) {
    const size_t count = left.size() < kRowsAtOnce ? 1 : kRowsAtOnce;
    PutRows(left.first(count), for_loc, file, disk_time);
    left = left.subspan(count);
  }
}

// By one statement: there is one for a row, and one for kRowsAtOnce.
void CRecordTable::PutRows(std::span<const CRowToPut> rows, Loc for_loc, int64_t file,
                           DiskTime disk_time) {
  // Absent where it is NULL. Made before the statement is begun: it can have to enter a file.
  std::array<std::optional<Bytes>, kRowsAtOnce> seen;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (!SeenItselfOnly(*rows[i].record, for_loc, disk_time)) {
      seen[i] = SeenOf(*rows[i].record, for_loc, file);
    }
  }
  CQuery put =
      _fConnection.Use(rows.size() == 1 ? EStatement::kPutRecord : EStatement::kPutRecords);
  for (size_t i = 0; i < rows.size(); ++i) {
    const auto& [id, key, record] = rows[i];
    put.Int(id).TextOf(key.scope);
    key.scan ? put.Int(*key.scan) : put.Null();
    key.scanned_file ? put.Int(*key.scanned_file) : put.Null();
    if (key.scanned_scope_absent) {
      put.Int(0);
    } else {
      key.scanned_scope ? put.TextOf(*key.scanned_scope) : put.Null();
    }
    seen[i] ? put.BytesOf(*seen[i]) : put.Null();
    record->class_equivs.empty() ? put.Null() : put.TextOf(record->class_equivs);
    record->import_equivs.empty() ? put.Null() : put.TextOf(record->import_equivs);
    put.BytesOf(record->data);
  }
  put.Run();
}

CRecordTable::CStoredKey CRecordTable::KeyOf(const CDatabaseRecord& record, Loc for_loc) {
  CStoredKey key;
  key.scope = record.for_scope;
  if (record.scan_name) {
    key.scan = _fScans.IdToStore(*record.scan_name);
  }
  if (!(record.scanned_loc == for_loc)) {
    key.scanned_file = record.scanned_loc ? _fFiles.IdToStore(record.scanned_loc) : kAbsentFile;
  }
  if (!record.scanned_scope) {
    key.scanned_scope_absent = true;
  } else if (*record.scanned_scope != record.for_scope) {
    key.scanned_scope = *record.scanned_scope;
  }
  return key;
}

Bytes CRecordTable::SeenOf(const CDatabaseRecord& record, Loc for_loc, int64_t file) {
  return _fSerializer.SerializeScopesSeenDict(
      record.scopes_seen.get(), [&](Loc loc) -> std::optional<uint64_t> {
        if (!loc) {
          return std::nullopt;
        }
        return static_cast<uint64_t>(loc == for_loc ? file : _fFiles.IdToStore(loc));
      });
}

// The rows from that number on whose scopes have its hash.
void CRecordTable::ReadKeys(int64_t first, CStoredRows& rows) {
  const auto keep = [&rows](TextView view) {
    rows.texts.push_back(std::make_unique<Text>(view));
    return TextView(*rows.texts.back());
  };
  CQuery query = _fConnection.Use(EStatement::kRecordKeys);
  query.Int(first).Int(first + kScopeSpan - 1);
  while (query.Step()) {
    CStoredKey key;
    key.scope = keep(query.ViewAt(1));
    key.scan = query.OptionalIntAt(2);
    key.scanned_file = query.OptionalIntAt(3);
    key.scanned_scope_absent = query.Type(4) == SQLITE_INTEGER;
    if (!key.scanned_scope_absent && !query.IsNull(4)) {
      key.scanned_scope = keep(query.ViewAt(4));
    }
    rows.by_id.emplace_back(query.IntAt(0), key);
  }
}

void CRecordTable::Drop(int64_t place) {
  _fConnection.Use(EStatement::kDropRecords).Int(place).Int(place + kPlaceSpan - 1).Run();
}

}  // namespace pysource::standalone::sqlitedb
