// The savable manager over real files: their disk times, and changes by looking again at the files
// that are watched. A disk time stands for a content (disktimes.h), so a file that was touched, or
// copied over itself, has not changed.
#pragma once

#include <cstddef>
#include <functional>
#include <optional>
#include <unordered_map>
#include <utility>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/savable.h"
#include "pysource/host/scoperef.h"
#include "pysource/standalone/files/disktimes.h"
#include "pysource/standalone/files/openbuffers.h"

namespace pysource::standalone {

// Remembers for each watched file the time that was last told of it, and tells when a look finds
// another one. It looks only when it is asked to: by a reading command before it answers, by the
// scan runner before it hands results over, by a file watcher when the system says that something
// happened.
//
// A file that is watched no more is remembered until it has changed. Its watcher let it go with
// what it knew of it, but others can still hold what they made of that: records for other files,
// merged records.
class CFileManager final : public CSavableManager {
 public:
  // `buffers` and `times` are those of the host, and must outlive this.
  CFileManager(const COpenBuffers& buffers, CDiskTimes& times);
  ~CFileManager() override;

  void AddFileLocToWatch(Loc loc) override;
  void RemoveLocToWatch(Loc loc) override;
  // Always looks at the disk: that costs a microsecond, a wrong time costs an answer.
  std::vector<DiskTime> GetLastModTimes(const std::vector<Loc>& loc_list, bool check_disk) override;

  // Looks at all files, or at one, and emits kExternalFilesChanged for watched ones whose time is
  // not the one last told, then calls fOnFileChanged. A file that was never watched is nobody's
  // business.
  void CheckWatchedFiles();
  void CheckFile(Loc loc);

  // The files that are watched no more and have not changed since.
  std::vector<Loc> Forgotten() const;
  // Called with each file that is found to have changed, watched or remembered.
  // `forgotten`: it was watched no more at some time between. An entry that its watcher has made
  // anew since then knows nothing of the change.
  std::function<void(Loc, bool forgotten)> fOnFileChanged;

  bool IsWatched(Loc loc) const { return _fLastTold.contains(loc); }
  size_t WatchCount() const { return _fLastTold.size(); }

 private:
  DiskTime TimeAsTold(Loc loc);
  void Check(const std::vector<Loc>& locs);

  const COpenBuffers& _fBuffers;
  CDiskTimes& _fTimes;
  // The time that was last told of each watched file.
  std::unordered_map<Loc, DiskTime> _fLastTold;
  // The same of the files whose watch has ended. A file that is watched again is in both, if its
  // time is another one by then, until the next look.
  std::unordered_map<Loc, DiskTime> _fForgotten;
  // The answer to the last question. A watch begins with the time that its owner has just been
  // told, by this or by an open buffer, or a change between the question and the watch would go
  // unseen.
  std::pair<Loc, DiskTime> _fLastAnswer;
};

}  // namespace pysource::standalone
