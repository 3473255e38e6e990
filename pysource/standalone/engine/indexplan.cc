#include "pysource/standalone/engine/indexplan.h"

#include <algorithm>
#include <string>
#include <unordered_map>
#include <unordered_set>
#include <utility>

#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/standalone/engine/filerows.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::standalone {
namespace {

// What the database holds, reduced to what a plan rests on.
struct CStored {
  CLocSet files;                          // that have rows
  std::unordered_map<Loc, CLocSet> from;  // B to the files A that have rows in it
  std::unordered_map<Loc, CLocSet> seen;  // B to the files A whose scans looked at it
};

CStored ReadStored(CSqliteAnalysisDb& db) {
  CStored stored;
  Loc last;
  db.VisitAllRecords([&](const CStoredRow& row) {
    const Loc loc = row.record.for_loc;
    if (!loc) {
      return;
    }
    if (loc.get() != last.get()) {  // rows come file by file
      stored.files.insert(loc);
      last = loc;
    }
    if (row.record.scanned_loc && row.record.scanned_loc != loc) {
      stored.from[loc].insert(row.record.scanned_loc);
    }
    if (row.record.scanned_loc && row.record.scopes_seen != nullptr) {
      for (const auto& [ref, time] : *row.record.scopes_seen) {
        if (ref.loc.get() != row.record.scanned_loc.get()) {
          stored.seen[ref.loc].insert(row.record.scanned_loc);
        }
      }
    }
  });
  return stored;
}

bool IsBelow(const std::string& path, const std::vector<std::string>& folders) {
  return std::any_of(folders.begin(), folders.end(), [&path](const std::string& folder) {
    return path.starts_with(folder) &&
           (path.size() == folder.size() || folder.ends_with('/') || path[folder.size()] == '/');
  });
}

bool IsGone(const std::string& path) {
  return GetFileDiskTime(path) == static_cast<DiskTime>(scopeinfo::kFileDoesNotExistMtime);
}

bool IsAllDone(const CScansDoneDict& scans_done, Loc loc) {
  const Text* done = scans_done.Find(loc);
  return done != nullptr && *done == kAllScansDone;
}

// Those of `locs` that are indexed as they are on the disk now.
std::vector<CFoundFile> FilesIndexedNow(CSqliteAnalysisDb& db, const CLocSet& locs) {
  CLocMtimeDict times;
  for (const Loc loc : locs) {
    if (const auto path = PathForLocation(loc)) {
      times.Set(loc, GetFileDiskTime(*path));
    }
  }
  const CScansDoneDict scans_done = times.empty() ? CScansDoneDict() : db.GetScansDone(times);
  std::vector<CFoundFile> files;
  for (const auto& [loc, time] : times) {
    if (IsAllDone(scans_done, loc)) {
      files.push_back({*PathForLocation(loc), loc, time});
    }
  }
  std::sort(files.begin(), files.end(),
            [](const CFoundFile& a, const CFoundFile& b) { return a.path < b.path; });
  return files;
}

}  // namespace

CIndexPlan MakeIndexPlan(CSqliteAnalysisDb& db, const CFoundFiles& found) {
  CIndexPlan plan;
  CLocMtimeDict times;
  for (const CFoundFile& file : found.files) {
    times.Set(file.loc, file.disk_mtime);
  }
  const CScansDoneDict scans_done = times.empty() ? CScansDoneDict() : db.GetScansDone(times);
  CLocSet changed;  // or removed
  for (const CFoundFile& file : found.files) {
    if (IsAllDone(scans_done, file.loc)) {
      ++plan.unchanged;
    } else {
      changed.insert(file.loc);
      plan.to_scan.push_back(file);
    }
  }

  const CStored stored = ReadStored(db);
  CLocSet again;
  for (const Loc loc : stored.files) {
    if (const auto path = PathForLocation(loc);
        path && !times.Contains(loc) && IsBelow(*path, found.paths) && IsGone(*path)) {
      ++plan.removed;
      changed.insert(loc);
      plan.to_clear.push_back(loc);
      if (const auto seen = stored.seen.find(loc); seen != stored.seen.end()) {
        again.insert(seen->second.begin(), seen->second.end());
      }
    }
  }

  for (const auto& [loc, sources] : stored.from) {
    const bool is_stale = std::any_of(sources.begin(), sources.end(), [&](Loc source) {
      const auto path = PathForLocation(source);
      return changed.contains(source) || (path && IsBelow(*path, found.paths) && IsGone(*path));
    });
    if (is_stale) {
      // Also of a file that is scanned anyway: if it is there at its old time, after a run that was
      // cut short, saving it keeps the rows of others.
      plan.to_clear.push_back(loc);
      again.insert(loc);
    }
    if (is_stale || changed.contains(loc)) {
      again.insert(sources.begin(), sources.end());
    }
  }
  for (const Loc loc : changed) {
    again.erase(loc);
  }
  plan.to_forget = FilesIndexedNow(db, again);
  for (const CFoundFile& file : plan.to_forget) {
    plan.unchanged -= times.Contains(file.loc) ? 1 : 0;
    plan.to_scan.push_back(file);
  }
  return plan;
}

}  // namespace pysource::standalone
