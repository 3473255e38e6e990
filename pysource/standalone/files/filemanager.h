// The savable manager over real files: modification times by asking the file system, changes by
// looking again at the files that are watched.
#pragma once

#include <cstddef>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/savable.h"
#include "pysource/host/scoperef.h"

namespace pysource::standalone {

// Remembers for each watched file the time that was last told of it, and tells when a look finds
// another one. It looks only when it is asked to: by a reading command before it answers, by the
// scan runner before it hands results over, by a file watcher when the system says that something
// happened.
class CFileManager final : public CSavableManager {
 public:
  CFileManager();
  ~CFileManager() override;

  void AddFileLocToWatch(Loc loc) override;
  void RemoveLocToWatch(Loc loc) override;
  // Always asks the file system: a stat costs a microsecond, a wrong time costs an answer.
  std::vector<DiskTime> GetLastModTimes(const std::vector<Loc>& loc_list, bool check_disk) override;

  // Looks at all watched files, or at one, and emits kExternalFilesChanged for those whose time is
  // not the one last told. A file that is not watched is nobody's business.
  void CheckWatchedFiles();
  void CheckFile(Loc loc);

  bool IsWatched(Loc loc) const { return _fLastTold.contains(loc); }
  size_t WatchCount() const { return _fLastTold.size(); }

 private:
  // The time that was last told of each watched file.
  std::unordered_map<Loc, DiskTime> _fLastTold;
  // The answer to the last question. A watch begins with the time that its owner has just been
  // told, or a change between the question and the watch would go unseen.
  std::pair<Loc, DiskTime> _fLastAnswer;
};

}  // namespace pysource::standalone
