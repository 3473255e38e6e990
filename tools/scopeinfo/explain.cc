#include "tools/scopeinfo/explain.h"

#include <fmt/format.h>

#include <algorithm>
#include <optional>
#include <utility>

#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/standalone/engine/filerows.h"
#include "pysource/standalone/files/packagemark.h"
#include "tools/scopeinfo/output.h"

namespace pysource::tools {
namespace {

using nlohmann::ordered_json;

std::string FileOf(Loc loc) { return loc ? PathForLocation(loc).value_or(loc->fUrl) : ""; }

std::string ScopeWord(TextView scope) {
  return scope == kModuleScopeName ? "the module"
         : scope == kWildcardScope ? "all scopes"
                                   : Printable(scope);
}

const char* StateWords(scopeinfo::EHeldState state) {
  switch (state) {
    case scopeinfo::EHeldState::kCouldNotWrite:
      return "could not be written";
    case scopeinfo::EHeldState::kToWrite:
      return "to be written";
    case scopeinfo::EHeldState::kInDatabase:
      return "in the database";
    case scopeinfo::EHeldState::kInMemoryOnly:
      return "in memory only";
  }
  return "";
}

// A disk time in words: it stands for a content, not for a time.
std::string TimeWord(DiskTime time) {
  if (time == static_cast<DiskTime>(scopeinfo::kFileModifiedInMemoryMtime)) {
    return "modified in memory";
  }
  if (time == static_cast<DiskTime>(scopeinfo::kFileDoesNotExistMtime)) {
    return "not there";
  }
  if (!scopeinfo::ValidOnDiskMtime(time)) {
    return "not readable";
  }
  return time == standalone::kPackageTime
             ? "a package"
             : fmt::format("with the content {:x}", static_cast<uint64_t>(time));
}

}  // namespace

CExplanation::CExplanation(standalone::CEngine& engine, Loc loc, TextView scope)
    : _fEngine(engine), _fLoc(loc), _fScope(scope) {
  engine.Database().fOnCall = [this](const standalone::CDbCall& call) { _fCalls.push_back(call); };
  engine.Scans().fOnScanned = [this](const standalone::CScanJobResult& result) {
    _fScanned.push_back(FileOf(result.job.loc));
  };
  scopeinfo::CNeedsScanDict needs_scan;
  (void)engine.Cache().GetScopeInfo(loc, scope, true, &needs_scan);
  _fCallsAtFirst = _fCalls.size();
  _fAtFirst = Records();
  for (const auto& [ref, scans] : needs_scan) {
    for (const Text& scan : scans) {
      _fWanted.push_back({ref.loc, ref.scope, scan, WhyWanted(ref.loc, scan)});
    }
  }
}

CExplanation::~CExplanation() {
  _fEngine.Database().fOnCall = nullptr;
  _fEngine.Scans().fOnScanned = nullptr;
}

void CExplanation::NoteAnswer(const scopeinfo::CScopeInfoPtr& info) {
  _fFound = info != nullptr;
  _fInTheEnd = Records();
}

std::vector<CExplanation::CRecord> CExplanation::Records() {
  std::vector<Loc> files = _fEngine.SecondaryFiles(_fLoc);
  files.insert(files.begin(), _fLoc);
  std::vector<CRecord> records;
  for (const Loc file : files) {
    for (const scopeinfo::CHeldRecord& record : _fEngine.Cache().GetRecordsHeld(file, _fScope)) {
      CRecord shown;
      shown.file = file;
      shown.scan = record.key.scan_name().value_or("");
      shown.scanned_file = record.key.scanned_loc();
      shown.scanned_scope = record.key.scanned_scope().value_or("");
      shown.standing = StateWords(record.state);
      shown.stale = WhyStale(record);
      records.push_back(std::move(shown));
    }
  }
  return records;
}

std::string CExplanation::WhyStale(const scopeinfo::CHeldRecord& record) {
  if (!record.is_stale) {
    return {};
  }
  if (record.scopes_seen != nullptr) {
    for (const auto& [ref, time] : *record.scopes_seen) {
      const DiskTime now = _fEngine.Cache().GetDiskModTimeUsed(ref.loc, true).value_or(0);
      if (now != time) {
        return fmt::format("it has seen {} {}, which is now {}", FileOf(ref.loc), TimeWord(time),
                           TimeWord(now));
      }
    }
  }
  return "something that it rests on has changed";
}

std::string CExplanation::WhyWanted(Loc loc, TextView scan) {
  for (const CRecord& record : _fAtFirst) {
    if (!record.stale.empty() && record.scan == scan && record.scanned_file == loc) {
      return "its record is stale";
    }
  }
  const auto file = _fEngine.Cache().GetFileHeld(loc);
  if (file && file->scans_done.empty()) {
    return fmt::format("no scan of the file, {}, is in the database", TimeWord(file->disk_mtime));
  }
  return "the scan was not done for this file";
}

std::string CExplanation::ToText() const {
  std::string text = "Explanation\n";
  const auto add = [&text](const char* heading, const std::vector<CRecord>& records) {
    text += fmt::format("\n  {}: {}\n", heading, Counted(records.size(), "record"));
    for (const CRecord& record : records) {
      text +=
          fmt::format("    {} of {} in {}, {}{}\n", record.scan, ScopeWord(record.scanned_scope),
                      Printable(FileOf(record.scanned_file)), record.standing,
                      record.stale.empty() ? "" : "; stale: " + Printable(record.stale));
    }
  };
  const auto add_calls = [&](size_t from, size_t to) {
    for (size_t i = from; i < to; ++i) {
      const standalone::CDbCall& call = _fCalls[i];
      std::string scopes;
      for (const Text& scope : call.scopes) {
        scopes += (scopes.empty() ? " of " : ", ") + ScopeWord(scope);
      }
      text += fmt::format("    {}{}{}{}: {}\n", call.operation, scopes, call.loc ? " in " : "",
                          Printable(FileOf(call.loc)), Grouped(call.count));
    }
  };
  text += fmt::format("\n  Asked of the database at first: {}\n", Counted(_fCallsAtFirst, "call"));
  add_calls(0, _fCallsAtFirst);
  add("Known before any scan", _fAtFirst);
  text += fmt::format("\n  Scans that would make it better: {}\n", Grouped(_fWanted.size()));
  for (const CWanted& wanted : _fWanted) {
    text += fmt::format("    {} of {} in {}: {}\n", wanted.scan, ScopeWord(wanted.scope),
                        Printable(FileOf(wanted.file)), Printable(wanted.why));
  }
  text += fmt::format("\n  Scanned: {}\n", Counted(_fScanned.size(), "file"));
  for (const std::string& file : _fScanned) {
    text += fmt::format("    {}\n", Printable(file));
  }
  if (_fCalls.size() > _fCallsAtFirst) {
    text += fmt::format("\n  Asked of the database then: {}\n",
                        Counted(_fCalls.size() - _fCallsAtFirst, "call"));
    add_calls(_fCallsAtFirst, _fCalls.size());
  }
  if (_fFound) {
    std::vector<CRecord> merged = _fInTheEnd;
    std::erase_if(merged, [](const CRecord& record) { return !record.stale.empty(); });
    add("Merged into the answer", merged);
  }
  return text;
}

ordered_json CExplanation::ToJson() const {
  const auto records_json = [](const std::vector<CRecord>& records) {
    ordered_json array = ordered_json::array();
    for (const CRecord& record : records) {
      ordered_json item{{"scan", record.scan},
                        {"file", FileOf(record.scanned_file)},
                        {"scope", record.scanned_scope},
                        {"standing", record.standing}};
      if (!record.stale.empty()) {
        item["stale"] = record.stale;
      }
      array.push_back(std::move(item));
    }
    return array;
  };
  ordered_json json;
  json["known_before"] = records_json(_fAtFirst);
  json["wanted"] = ordered_json::array();
  for (const CWanted& wanted : _fWanted) {
    json["wanted"].push_back({{"scan", wanted.scan},
                              {"file", FileOf(wanted.file)},
                              {"scope", wanted.scope},
                              {"why", wanted.why}});
  }
  json["scanned"] = _fScanned;
  json["merged"] = ordered_json::array();
  if (_fFound) {
    std::vector<CRecord> merged = _fInTheEnd;
    std::erase_if(merged, [](const CRecord& record) { return !record.stale.empty(); });
    json["merged"] = records_json(merged);
  }
  json["database_calls"] = ordered_json::array();
  for (const standalone::CDbCall& call : _fCalls) {
    json["database_calls"].push_back({{"call", call.operation},
                                      {"file", FileOf(call.loc)},
                                      {"scopes", call.scopes},
                                      {"count", call.count}});
  }
  return json;
}

}  // namespace pysource::tools
