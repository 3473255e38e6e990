// Storing records from scans and from the database, and handing records to the database.
#include <algorithm>
#include <array>
#include <utility>

#include "pysource/host/assertions.h"
#include "pysource/host/logger.h"
#include "pysource/host/repr.h"
#include "pysource/scopeinfo/filestate/equivs.h"
#include "pysource/scopeinfo/filestate/perfileentry.h"
#include "pysource/scopeinfo/records/vocabulary.h"

namespace pysource::scopeinfo {
namespace {

constexpr char kToWriteFlag = '1';
constexpr char kInDatabaseFlag = '0';

Bytes JoinRecordData(BytesView data, BytesView class_equivs_str, BytesView import_equivs_str,
                     char flag) {
  Bytes joined;
  joined.reserve(data.size() + class_equivs_str.size() + import_equivs_str.size() + 4);
  joined.append(data).push_back('\0');
  joined.append(class_equivs_str).push_back('\0');
  joined.append(import_equivs_str).push_back('\0');
  joined.push_back(flag);
  return joined;
}

// The four parts of a record's data; absent when there are more or fewer.
std::optional<std::array<BytesView, 4>> SplitRecordData(BytesView data) {
  std::array<BytesView, 4> parts;
  for (size_t i = 0; i < 3; ++i) {
    const size_t end = data.find('\0');
    if (end == BytesView::npos) {
      return std::nullopt;
    }
    parts[i] = data.substr(0, end);
    data.remove_prefix(end + 1);
  }
  if (data.find('\0') != BytesView::npos) {
    return std::nullopt;
  }
  parts[3] = data;
  return parts;
}

bool SameScan(const CScopeInfoKey& a, std::optional<TextView> scan_name, Loc scanned_loc,
              std::optional<TextView> scanned_scope) {
  return a.scan_name() == scan_name && a.scanned_loc() == scanned_loc &&
         a.scanned_scope() == scanned_scope;
}

void LogRecord(TextView format, const CScopeInfoKey& key) {
  if (kLogRecordChanges) {
    PrintLine(FormatBraces(format, {key}));
  }
}

}  // namespace

CScopeInfoKey CPerFileEntry::OwnKey(const CScopeInfoKey& key) const {
  if (key.for_loc().get() == loc.get()) {
    return key;
  }
  // The location is equal but another object. Records made here name the location object of this
  // entry, since merging compares by identity.
  return CScopeInfoKey(loc, key.for_scope(), key.scan_name(), key.scanned_loc(),
                       key.scanned_scope());
}

bool CPerFileEntry::StoreScopeInfo(const CScopeInfoPtr& info) {
  const Bytes& data = info->GetSerializedData();
  const CEquivStrings equivs = CollectEquivs(*info);
  return SetSerializedRecord(info->key, data, equivs.class_equivs, equivs.import_equivs, true,
                             info->scope_seen_dict, info->incomplete, info);
}

bool CPerFileEntry::SetSerializedRecord(const CScopeInfoKey& key, BytesView data,
                                        BytesView class_equivs_str, BytesView import_equivs_str,
                                        bool needs_db_write, const CScopesSeenPtr& scopes_seen,
                                        bool incomplete, const CScopeInfoPtr& info) {
  if (AssertionsActive()) {
    Assert(static_cast<bool>(key.scanned_loc()));
    Assert(key.scanned_scope().has_value());
    Assert(!data.empty());
    if (scopes_seen != nullptr) {
      for (const auto& [scope, mtime] : *scopes_seen) {
        Assert(static_cast<bool>(scope.loc), scope.loc ? Text() : Repr(*scopes_seen));
      }
    }
  }
  CSerializedRecord new_record{OwnKey(key),
                               JoinRecordData(data, class_equivs_str, import_equivs_str,
                                              needs_db_write ? kToWriteFlag : kInDatabaseFlag),
                               scopes_seen, incomplete};
  const size_t scopes_before = serialized_data_dict.size();
  RecordList* const records = &serialized_data_dict.GetOrMake(key.for_scope());
  if (serialized_data_dict.size() != scopes_before && !db_scope_names_not_loaded.empty()) {
    if (const auto name = db_scope_names_not_loaded.find(key.for_scope());
        name != db_scope_names_not_loaded.end()) {
      db_scope_names_not_loaded.erase(name);
    }
  }
  const auto same = std::find_if(records->begin(), records->end(), [&](const auto& record) {
    return SameScan(record.key, key.scan_name(), key.scanned_loc(), key.scanned_scope());
  });
  if (same != records->end()) {
    // Replaced even if the data did not change: the scopes seen and the incomplete flag may have.
    const CSerializedRecord old_record = std::exchange(*same, std::move(new_record));
    const BytesView old_data = old_record.data;
    const BytesView new_data = same->data;
    // Compared without the flag at the end: a scan that finds again what the database holds has
    // changed nothing.
    const bool modified =
        new_data.size() != old_data.size() ||
        new_data.substr(0, new_data.size() - 1) != old_data.substr(0, old_data.size() - 1);
    _fCrossFileData.AddInfoKey(key, info, true);
    if (disk_mtime != kFileModifiedInMemoryMtime &&
        (modified || !_fCrossFileData._fAllInDatabaseInfoKeys.contains(key))) {
      _fCrossFileData.AddToWriteInfoKey(key);
    }
    if (modified && needs_db_write) {
      LogRecord("Serialized record changed: {}", key);
    }
    return modified;
  }
  records->push_back(std::move(new_record));
  _fCrossFileData.AddInfoKey(key, info, true);
  // Unlike above, nothing is written for a file whose time is "unknown on disk": a replaced record
  // was already written for that file, an added one would be the first.
  if (ValidOnDiskMtime(disk_mtime) && !_fCrossFileData._fAllInDatabaseInfoKeys.contains(key)) {
    _fCrossFileData.AddToWriteInfoKey(key);
  }
  if (needs_db_write) {
    LogRecord("Serialized record added: {}", key);
  }
  return true;
}

bool CPerFileEntry::RemoveSerializedRecords(std::optional<TextView> scan_name, TextView scope_name,
                                            Loc scanned_loc,
                                            std::optional<TextView> scanned_scope) {
  RecordList* const records = serialized_data_dict.Find(scope_name);
  if (records == nullptr) {
    return false;
  }
  const auto match = std::find_if(records->begin(), records->end(), [&](const auto& record) {
    return record.key.scanned_loc() == scanned_loc && record.key.scanned_scope() == scanned_scope &&
           (scan_name == kWildcardScope || record.key.scan_name() == scan_name);
  });
  if (match == records->end()) {
    return false;
  }
  const CSerializedRecord removed = std::move(*match);
  // Only the first match is removed, also for "*": callers remove the records of one scan at a
  // time. An empty list stays: it shows that the scope is loaded.
  records->erase(match);
  AfterRecordRemoved(removed);
  return true;
}

void CPerFileEntry::AfterRecordRemoved(const CSerializedRecord& record) {
  _fCrossFileData.RemoveInfoKey(record.key);
  LogRecord("Serialized record removed: {}", record.key);
}

CPerFileEntry::DatabaseRecords CPerFileEntry::GetDatabaseRecords(
    const CScopeInfoKeySet& key_set) const {
  DatabaseRecords result;
  result.data_list.reserve(key_set.size());
  for (const CScopeInfoKey& key : key_set) {
    Assert(!AssertionsActive() || !_fCrossFileData._fAllNeedsScanInfoKeys.contains(key));
    const RecordList* const records = serialized_data_dict.Find(key.for_scope());
    if (records != nullptr) {
      const auto record = std::find_if(records->begin(), records->end(),
                                       [&](const auto& each) { return each.key == key; });
      if (record != records->end() && !record->incomplete) {
        const auto parts = SplitRecordData(record->data);
        if (parts && (*parts)[3] == BytesView(&kToWriteFlag, 1)) {
          result.data_list.push_back(CDatabaseRecord{
              .for_loc = loc,
              .for_scope = Text(key.for_scope()),
              .scan_name = key.scan_name() ? std::optional<Text>(*key.scan_name()) : std::nullopt,
              .scanned_loc = key.scanned_loc(),
              .scanned_scope =
                  key.scanned_scope() ? std::optional<Text>(*key.scanned_scope()) : std::nullopt,
              .scopes_seen = record->scopes_seen,
              .class_equivs = Bytes((*parts)[1]),
              .import_equivs = Bytes((*parts)[2]),
              .data = Bytes((*parts)[0]),
          });
          continue;
        }
      }
    }
    // There is no record, or it is incomplete, not from a scan, or damaged.
    if (!result.not_writable_set) {
      result.not_writable_set.emplace();
    }
    result.not_writable_set->insert(key);
  }
  return result;
}

void CPerFileEntry::AfterSuccessfulDatabaseWrite(const std::vector<CDatabaseRecord>& data_list) {
  for (const CDatabaseRecord& item : data_list) {
    RecordList* const records = serialized_data_dict.Find(item.for_scope);
    if (records == nullptr) {
      Assert(false, FormatBraces("scope is missing: {}", {item.for_scope}));
      continue;
    }
    const auto record = std::find_if(records->begin(), records->end(), [&](const auto& each) {
      return SameScan(each.key, item.scan_name, item.scanned_loc, item.scanned_scope);
    });
    if (record != records->end()) {
      Assert(record->data.back() == kToWriteFlag);
      record->data.back() = kInDatabaseFlag;
    }
  }
}

}  // namespace pysource::scopeinfo
