#include "pysource/standalone/sqlitedb/recordtable.h"

#include <algorithm>
#include <array>
#include <bit>
#include <numeric>
#include <tuple>

#include "pysource/host/errors.h"
#include "pysource/host/logger.h"
#include "pysource/host/repr.h"
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

void CRecordTable::CheckTallies(const CFileRow& file, const CTallies& tallies) {
  if (file.tally != tallies.all || file.foreign_tally != tallies.foreign) {
    ThrowDamagedRow("records of the file " + Repr(file.name) + " are missing");
  }
}

bool CRecordTable::IsSoundButForData(const CQuery& query, int64_t file) {
  return _fSum.Begin().Int(file).Column(query, 0).Columns(query, 2, 8).IsUpperOf(query.IntAt(1));
}

bool CRecordTable::IsDataSound(const CQuery& query) {
  return CRowSum::IsLowerOf(query.IntAt(1), query.ViewAt(9), query.IntAt(0));
}

std::vector<Text> CRecordTable::ReadScopeNames(Loc loc, TextView scan, DiskTime disk_time) {
  std::vector<Text> names;
  const auto id = _fFiles.IdOf(loc);
  if (!id) {
    return names;
  }
  CTallies tallies;
  std::optional<CFileRow> file;
  CQuery query = _fConnection.Use(EStatement::kScopeNames);
  query.Int(*id);
  while (query.Step()) {
    if (!file) {
      file = FileOf(query);
      if (file->disk_time != disk_time) {
        return names;
      }
    }
    if (query.IsNull(0)) {
      break;
    }
    const Text* const row_scan = query.IsNull(3) ? nullptr : _fScans.NameOf(query.IntAt(3));
    if (!IsSoundButForData(query, *id) || (row_scan == nullptr && !query.IsNull(3))) {
      ThrowDamagedRow("a record of the file " + Repr(file->name) + " is damaged");
    }
    tallies.Count(query.IntAt(1), !query.IsNull(4));
    if (row_scan != nullptr && *row_scan == scan) {
      names.emplace_back(query.ViewAt(2));
    }
  }
  if (!file) {
    ThrowDamagedRow("the row of " + loc->fUrl + " is missing");
  }
  CheckTallies(*file, tallies);
  std::sort(names.begin(), names.end());
  names.erase(std::unique(names.begin(), names.end()), names.end());
  return names;
}

void CRecordTable::ReadFrom(CQuery& query, const CWanted& wanted, Loc loc, DiskTime disk_time,
                            std::vector<CDatabaseRecord>& records) {
  std::optional<CFileRow> file;
  CTallies tallies;
  while (query.Step()) {
    if (!file) {
      file = FileOf(query);
      if (file->disk_time != disk_time) {
        return;
      }
    }
    if (query.IsNull(0)) {
      continue;
    }
    tallies.Count(query.IntAt(1), !query.IsNull(4));
    CDatabaseRecord record;
    const CRowFault fault = ReadRow(query, file->id, loc, disk_time, record);
    if (!fault.text.empty() && fault.is_damaged) {
      ThrowDamagedRow("the file " + Repr(file->name) + ", scope " + Repr(record.for_scope) + ": " +
                      fault.text);
    }
    const auto scan = query.OptionalIntAt(3);
    if (!scan || std::find(wanted.scans.begin(), wanted.scans.end(), *scan) == wanted.scans.end() ||
        (!wanted.all &&
         !std::binary_search(wanted.scopes.begin(), wanted.scopes.end(), query.ViewAt(2)))) {
      continue;
    }
    if (fault.text.empty()) {
      records.push_back(std::move(record));
    } else {
      CriticalLog("%s: a row was left out: %s, scope %r: %s", _fShown, loc->fUrl, record.for_scope,
                  fault.text);
    }
  }
  if (file && wanted.all) {
    CheckTallies(*file, tallies);
  }
}

std::vector<CDatabaseRecord> CRecordTable::Read(Loc loc, const std::vector<Text>& scan_names,
                                                const std::vector<Text>& scope_names,
                                                DiskTime disk_time) {
  std::vector<CDatabaseRecord> records;
  const auto file = _fFiles.IdOf(loc);
  if (!file) {
    return records;
  }
  CWanted wanted;
  for (const Text& name : scan_names) {
    if (const auto scan = _fScans.IdOf(name)) {
      wanted.scans.push_back(*scan);
    }
  }
  wanted.scopes.assign(scope_names.begin(), scope_names.end());
  std::sort(wanted.scopes.begin(), wanted.scopes.end());
  wanted.all = std::binary_search(wanted.scopes.begin(), wanted.scopes.end(), kWildcardScope);
  if (wanted.scans.empty() || wanted.scopes.empty()) {
    return records;
  }
  if (wanted.all) {
    CQuery query = _fConnection.Use(EStatement::kRecordsAll);
    ReadFrom(query.Int(*file), wanted, loc, disk_time, records);
  } else if (wanted.scopes.size() == 1) {
    CQuery query = _fConnection.Use(EStatement::kRecordsOne);
    query.Int(*file).Int(ScopeOffset(wanted.scopes[0]));
    ReadFrom(query, wanted, loc, disk_time, records);
  } else {
    // Two names of one hash are one range.
    std::vector<int64_t> offsets;
    offsets.reserve(wanted.scopes.size());
    for (const TextView scope : wanted.scopes) {
      offsets.push_back(ScopeOffset(scope));
    }
    std::sort(offsets.begin(), offsets.end());
    offsets.erase(std::unique(offsets.begin(), offsets.end()), offsets.end());
    const Text json = JsonArray(offsets);
    CQuery query = _fConnection.Use(EStatement::kRecordsMany);
    ReadFrom(query.Int(*file).TextOf(json), wanted, loc, disk_time, records);
  }
  return Sorted(std::move(records));
}

void CRecordTable::ReadEquivs(EEquivs equivs, const std::vector<Loc>& locs, TextView scan,
                              const std::function<void(size_t, const Text&, const Bytes&)>& take) {
  std::vector<int64_t> asked;
  std::vector<size_t> asked_index;
  const auto ids = _fFiles.IdsOf(locs);
  for (size_t i = 0; i < ids.size(); ++i) {
    if (ids[i]) {
      asked.push_back(*ids[i]);
      asked_index.push_back(i);
    }
  }
  const auto scan_id = _fScans.IdOf(scan);
  const int column = static_cast<int>(equivs);
  std::vector<std::tuple<size_t, Text, Bytes>> found;
  const Text json = JsonArray(asked);
  CQuery query = _fConnection.Use(EStatement::kEquivs);
  query.TextOf(json);
  std::optional<CFileRow> file;
  int64_t key = -1;
  CTallies tallies;
  size_t files = 0;
  const auto end_file = [&] {
    if (file) {
      ++files;
      CheckTallies(*file, tallies);
    }
    tallies = {};
  };
  while (query.Step()) {
    if (query.IntAt(kFileColumn + 8) != key) {
      end_file();
      key = query.IntAt(kFileColumn + 8);
      file = FileOf(query);
    }
    if (query.IsNull(0)) {
      continue;
    }
    if (!IsSoundButForData(query, file->id) ||
        (!query.IsNull(3) && _fScans.NameOf(query.IntAt(3)) == nullptr)) {
      ThrowDamagedRow("a record of the file " + Repr(file->name) + " is damaged");
    }
    tallies.Count(query.IntAt(1), !query.IsNull(4));
    if (scan_id && query.OptionalIntAt(3) == scan_id && !query.IsNull(column)) {
      found.emplace_back(asked_index[static_cast<size_t>(key)], query.ViewAt(2),
                         query.ViewAt(column));
    }
  }
  end_file();
  if (files != asked.size()) {
    ThrowDamagedRow("the row of a file is missing");
  }
  std::stable_sort(found.begin(), found.end(), [](const auto& a, const auto& b) {
    return std::tie(std::get<0>(a), std::get<1>(a)) < std::tie(std::get<0>(b), std::get<1>(b));
  });
  for (const auto& [index, scope, bytes] : found) {
    take(index, scope, bytes);
  }
}

CRowFault CRecordTable::ReadRow(CQuery& query, int64_t file, Loc for_loc, DiskTime disk_time,
                                CDatabaseRecord& record) {
  record.for_loc = for_loc;
  record.for_scope = query.ViewAt(2);
  if (!IsSoundButForData(query, file) || !IsDataSound(query)) {
    return {"its checksum does not fit"};
  }
  record.class_equivs = query.ViewAt(7);
  record.import_equivs = query.ViewAt(8);
  record.data = query.ViewAt(9);
  if (const auto scan = query.OptionalIntAt(3)) {
    const Text* const name = _fScans.NameOf(*scan);
    if (name == nullptr) {
      return {"its scan " + std::to_string(*scan) + " is not known"};
    }
    record.scan_name = *name;
  }
  record.scanned_loc = for_loc;
  if (const auto source = query.OptionalIntAt(4)) {
    record.scanned_loc = *source == kAbsentFile ? Loc() : _fFiles.LocOf(*source);
    if (*source != kAbsentFile && !record.scanned_loc) {
      return {"its scanned file " + std::to_string(*source) + " is not known",
              !_fFiles.Has(*source)};
    }
  }
  switch (query.Type(5)) {
    case SQLITE_NULL:
      record.scanned_scope = record.for_scope;
      break;
    case SQLITE_INTEGER:
      break;
    default:
      record.scanned_scope = query.ViewAt(5);
  }
  bool is_damaged = true;
  try {
    record.scopes_seen = ReadScopesSeen(query, 6, for_loc, disk_time, [&](int64_t id) {
      const Loc loc = _fFiles.LocOf(id);
      is_damaged = loc || !_fFiles.Has(id);
      return loc;
    });
  } catch (const CValueError& error) {
    return {std::string("its scopes seen are damaged: ") + error.what(), is_damaged};
  }
  return {};
}

CScopesSeenPtr CRecordTable::ReadScopesSeen(const CQuery& query, int column, Loc for_loc,
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
    // Places are not given out twice. After so many files, too, a new database is what helps.
    ThrowDamagedRow("there is no place for another file");
  }
  return place;
}

void CRecordTable::Put(Loc for_loc, int64_t file, int64_t place, bool replacing,
                       const std::vector<CDatabaseRecord>& records, DiskTime disk_time,
                       CTallies& tallies) {
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
      next = place + offset;
      if (replacing) {
        ReadKeys(place + offset, rows);
        next = rows.by_id.empty() ? next : rows.by_id.back().id + 1;
      }
    }
    const CStoredKey key = KeyOf(record, for_loc);
    const auto same = std::find_if(rows.by_id.begin(), rows.by_id.end(),
                                   [&key](const auto& row) { return row.key == key; });
    if (same != rows.by_id.end() && same->to_put != SIZE_MAX) {
      to_put[same->to_put].record = &record;
      continue;
    }
    const int64_t id = same == rows.by_id.end() ? next++ : same->id;
    if (id >= place + offset + kScopeSpan) {
      throw CSqliteFailure(SQLITE_FULL, "too many records of one scope");
    }
    if (same == rows.by_id.end()) {
      rows.by_id.push_back({id, key, 0, to_put.size()});
    } else {
      tallies.Uncount(same->sum, key.scanned_file.has_value());
      same->to_put = to_put.size();
    }
    to_put.push_back({id, key, &record});
  }

  for (std::span<const CRowToPut> left = to_put; !left.empty();) {
    const size_t count = left.size() < kRowsAtOnce ? 1 : kRowsAtOnce;
    PutRows(left.first(count), for_loc, file, disk_time, tallies);
    left = left.subspan(count);
  }
}

// By one statement: there is one for a row, and one for kRowsAtOnce.
void CRecordTable::PutRows(std::span<const CRowToPut> rows, Loc for_loc, int64_t file,
                           DiskTime disk_time, CTallies& tallies) {
  // Absent where it is NULL. Made before the statement is begun: it can have to enter a file.
  std::array<std::optional<Bytes>, kRowsAtOnce> seen;
  for (size_t i = 0; i < rows.size(); ++i) {
    if (!SeenItselfOnly(*rows[i].record, for_loc, disk_time)) {
      seen[i] = SeenOf(*rows[i].record, for_loc, file);
    }
  }
  // Bound and summed up alike.
  const auto put_columns = [](auto& to, const CStoredKey& key, const std::optional<Bytes>& seen_is,
                              const CDatabaseRecord& record) {
    to.TextOf(key.scope);
    key.scan ? to.Int(*key.scan) : to.Null();
    key.scanned_file ? to.Int(*key.scanned_file) : to.Null();
    if (key.scanned_scope_absent) {
      to.Int(0);
    } else {
      key.scanned_scope ? to.TextOf(*key.scanned_scope) : to.Null();
    }
    seen_is ? to.BytesOf(*seen_is) : to.Null();
    record.class_equivs.empty() ? to.Null() : to.TextOf(record.class_equivs);
    record.import_equivs.empty() ? to.Null() : to.TextOf(record.import_equivs);
  };
  CQuery put =
      _fConnection.Use(rows.size() == 1 ? EStatement::kPutRecord : EStatement::kPutRecords);
  for (size_t i = 0; i < rows.size(); ++i) {
    const auto& [id, key, record] = rows[i];
    put_columns(_fSum.Begin().Int(file).Int(id), key, seen[i], *record);
    const int64_t sum = _fSum.SumWith(record->data, id);
    tallies.Count(sum, key.scanned_file.has_value());
    put_columns(put.Int(id).Int(sum), key, seen[i], *record);
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
    key.scope = keep(query.ViewAt(2));
    key.scan = query.OptionalIntAt(3);
    key.scanned_file = query.OptionalIntAt(4);
    key.scanned_scope_absent = query.Type(5) == SQLITE_INTEGER;
    if (!key.scanned_scope_absent && !query.IsNull(5)) {
      key.scanned_scope = keep(query.ViewAt(5));
    }
    rows.by_id.push_back({query.IntAt(0), key, query.IntAt(1)});
  }
}

void CRecordTable::Drop(int64_t place) {
  _fConnection.Use(EStatement::kDropRecords).Int(place).Int(place + kPlaceSpan - 1).Run();
}

}  // namespace pysource::standalone::sqlitedb
