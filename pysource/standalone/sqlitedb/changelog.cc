#include "pysource/standalone/sqlitedb/changelog.h"

#include <algorithm>

#include "pysource/standalone/sqlitedb/filetable.h"
#include "pysource/standalone/sqlitedb/schema.h"

namespace pysource::standalone::sqlitedb {
namespace {

// Own changes that are not in one run with others, before all is told as changed instead: 64 KB.
constexpr size_t kMostOwnRuns = 4096;

void CheckRow(CRowSum& sum, const CQuery& query) {
  if (sum.Begin().Columns(query, 0, 2).Sum() != query.IntAt(3)) {
    ThrowDamagedRow("a row of the log of changes is damaged");
  }
}

}  // namespace

CChangeLog::CChangeLog(CSqliteConnection& connection) : _fConnection(connection) {
  _fDataVersion = DataVersion();
  _fSeen = Last().seq;
}

int64_t CChangeLog::DataVersion() {
  CQuery query = _fConnection.Use(EStatement::kDataVersion);
  return query.Step() ? query.IntAt(0) : 0;
}

CChangeLog::CLast CChangeLog::Last() {
  CQuery query = _fConnection.Use(EStatement::kLastChange);
  if (!query.Step()) {
    return {};
  }
  CheckRow(_fSum, query);
  return {query.IntAt(0), query.IntAt(2)};
}

CFoundChanges CChangeLog::Find(CFileTable& files) {
  CFoundChanges found;
  // Asked before the log is read: what comes in between is found the next time.
  const int64_t data_version = DataVersion();
  if (!_fEverythingChanged && data_version == _fDataVersion) {
    found.report = "no changes";
    return found;
  }
  const int64_t last = Last().seq;
  if (!_fEverythingChanged && last > _fSeen) {
    // The numbers are without gaps, so a missing one says that the log was cut meanwhile.
    int64_t expected = _fSeen + 1;
    CQuery query = _fConnection.Use(EStatement::kChangesSince);
    query.Int(_fSeen).Int(last);
    while (query.Step() && query.IntAt(0) == expected) {
      CheckRow(_fSum, query);
      if (!IsOwn(expected++)) {
        if (const Loc loc = files.LocOf(query.IntAt(1))) {
          found.files.insert(loc);
        }
      }
    }
    _fEverythingChanged = expected != last + 1;
  }
  _fEverythingChanged |= last < _fSeen;
  found.everything = std::exchange(_fEverythingChanged, false);
  _fDataVersion = data_version;
  _fSeen = last;
  std::erase_if(_fOwn, [last](const auto& run) { return run.second <= last; });
  found.report = found.everything ? Text("everything may have changed")
                                  : std::to_string(found.files.size()) + " files changed";
  return found;
}

bool CChangeLog::IsOwn(int64_t seq) const {
  const auto run =
      std::lower_bound(_fOwn.begin(), _fOwn.end(), seq,
                       [](const auto& own, int64_t value) { return own.second < value; });
  return run != _fOwn.end() && run->first <= seq;
}

bool CChangeLog::HasHeardOf(int64_t seq) const {
  return seq <= _fSeen || IsOwn(seq) ||
         std::find(_fUncommitted.begin(), _fUncommitted.end(), seq) != _fUncommitted.end();
}

void CChangeLog::Recount() {
  int64_t tally = 0;
  const auto statement =
      _fConnection.Prepare("SELECT sum FROM files UNION ALL SELECT sum FROM lost");
  for (CQuery query(statement.get()); query.Step();) {
    tally = AddSums(tally, query.IntAt(0));
  }
  _fTally = TakeSum(tally, Last().tally);
}

void CChangeLog::Add(int64_t file) {
  const CLast last = Last();
  const int64_t seq = last.seq + 1;
  const int64_t tally = AddSums(last.tally, std::exchange(_fTally, 0));
  const int64_t sum = _fSum.Begin().Int(seq).Int(file).Int(tally).Sum();
  _fConnection.Use(EStatement::kLogChange).Int(seq).Int(file).Int(tally).Int(sum).Run();
  if (seq % kChangesCutEvery == 0 && seq > kChangesKept) {
    _fConnection.Use(EStatement::kCutChanges).Int(seq - kChangesKept).Run();
  }
  _fUncommitted.push_back(seq);
}

void CChangeLog::Keep() {
  for (const int64_t seq : _fUncommitted) {
    if (!_fOwn.empty() && _fOwn.back().second + 1 == seq) {
      _fOwn.back().second = seq;
      continue;
    }
    if (_fOwn.size() == kMostOwnRuns) {
      _fOwn.clear();
      LoseTrack();
    }
    _fOwn.emplace_back(seq, seq);
  }
  _fUncommitted.clear();
}

}  // namespace pysource::standalone::sqlitedb
