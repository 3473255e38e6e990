// Everything that a cache holds, as text: sorted where order has no meaning, in order where it
// does. Two caches in the same state give the same text.
#include <algorithm>

#include "pysource/scopeinfo/infocache/infocache.h"

namespace pysource::scopeinfo {
namespace {

template <class Range>
std::vector<Text> SortedReprs(const Range& range) {
  std::vector<Text> lines;
  lines.reserve(range.size());
  for (const auto& item : range) {
    lines.push_back(Repr(item));
  }
  std::sort(lines.begin(), lines.end());
  return lines;
}

void DumpLines(Text& out, TextView title, const std::vector<Text>& lines) {
  out += FormatBraces("{} ({})\n", {title, lines.size()});
  for (const Text& line : lines) {
    out += FormatBraces("  {}\n", {line});
  }
}

Text Joined(const std::vector<Text>& items) {
  Text joined;
  for (const Text& item : items) {
    joined += joined.empty() ? item : ", " + item;
  }
  return joined;
}

void DumpIndexSize(Text& out, TextView name, const CKeysByAddress& index) {
  size_t scopes = 0;
  for (const auto& [loc, by_scope] : index.ByLoc()) {
    scopes += by_scope.Sets().size();
  }
  out += FormatBraces("{}: {} files, {} scopes\n", {name, index.ByLoc().size(), scopes});
}

void DumpFile(Text& out, const CPerFileEntry& per_file) {
  out += FormatBraces("file {}\n", {per_file.loc});
  out += FormatBraces("  disk_mtime = {}, clear_db = {}, fDatabaseChanged = {}\n",
                      {per_file.disk_mtime, per_file.clear_db, per_file.fDatabaseChanged});
  out += FormatBraces("  fScansDone = {}, fScansDoneNeedsToBeWritten = {}\n",
                      {Repr(per_file.fScansDone), per_file.fScansDoneNeedsToBeWritten});
  out += FormatBraces("  all_db_scope_names = {}\n",
                      {Joined(SortedReprs(per_file.all_db_scope_names))});
  out += FormatBraces("  db_scope_names_not_loaded = {}\n",
                      {Joined(SortedReprs(per_file.db_scope_names_not_loaded))});
  std::vector<Text> primaries;
  for (const auto& [scope_name, info] : per_file.primary_info_dict) {
    primaries.push_back(Repr(scope_name));
  }
  std::sort(primaries.begin(), primaries.end());
  out += FormatBraces("  primary_info_dict = {}\n", {Joined(primaries)});
  std::vector<Text> scopes;
  for (const auto& [scope_name, records] : per_file.serialized_data_dict) {
    Text text = FormatBraces("  scope {}\n", {Repr(scope_name)});
    for (const CSerializedRecord& record : records) {
      text +=
          FormatBraces("    {} data = {} bytes, flag {}, incomplete = {}, scopes seen = {}\n",
                       {record.key, record.data.size(), record.data.substr(record.data.size() - 1),
                        record.incomplete, record.scopes_seen});
    }
    scopes.push_back(std::move(text));
  }
  std::sort(scopes.begin(), scopes.end());
  for (const Text& text : scopes) {
    out += text;
  }
}

}  // namespace

Text CInfoCache::DebugDump() const {
  const CCrossFileData& cross = _fCrossFileData;
  Text out;
  DumpLines(out, "known", SortedReprs(cross._fAllInfoKeys));
  DumpLines(out, "needs scan", SortedReprs(cross._fAllNeedsScanInfoKeys));
  DumpLines(out, "in database", SortedReprs(cross._fAllInDatabaseInfoKeys));
  DumpLines(out, "to write", SortedReprs(cross._fAllToWriteInfoKeys));
  DumpLines(out, "could not write", SortedReprs(cross._fAllCouldNotWriteInfoKeys));
  DumpIndexSize(out, "_fInfoKeysByScannedLoc", cross._fInfoKeysByScannedLoc);
  DumpIndexSize(out, "_fInfoKeysByForLoc", cross._fInfoKeysByForLoc);
  DumpIndexSize(out, "_fNeedsScanInfoKeyByScannedLoc", cross._fNeedsScanInfoKeyByScannedLoc);
  DumpIndexSize(out, "_fNeedsScanInfoKeyByForLoc", cross._fNeedsScanInfoKeyByForLoc);
  DumpIndexSize(out, "_fInDatabaseInfoKeysByForLoc", cross._fInDatabaseInfoKeysByForLoc);
  DumpIndexSize(out, "_fToWriteInfoKeysByForLoc", cross._fToWriteInfoKeysByForLoc);
  out += FormatBraces("live records: {}\n", {cross._fExistingScopeInfo.size()});
  std::vector<const CPerFileEntry*> files;
  for (const auto& [loc, per_file] : _fPerFileDict) {
    files.push_back(per_file.get());
  }
  std::sort(files.begin(), files.end(),
            [](const auto* a, const auto* b) { return a->loc < b->loc; });
  for (const CPerFileEntry* const per_file : files) {
    DumpFile(out, *per_file);
  }
  out += "used scopes, most recently used first\n";
  for (const auto& [scope, returned] : _fUsedScopesDict) {
    out += FormatBraces("  {} {}\n", {scope, returned});
  }
  DumpLines(out, "merged records", SortedReprs(_fMergedInfoCache.Keys()));
  return out;
}

}  // namespace pysource::scopeinfo
