// Files on disk and objects that are saved to them.
#pragma once

#include <vector>

#include "pysource/host/analysisdb.h"
#include "pysource/host/destroyable.h"
#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"

namespace pysource {

class CSavableManager;

// Files changed outside the host: from file to new modification time.
inline constexpr CSignal<CSavableManager, const CLocMtimeDict&> kExternalFilesChanged{
    "external-files-changed"};

// Watches files and knows their modification times. The watches are a set: watching a file twice is
// watching it once.
class CSavableManager : public CDestroyable {
 public:
  CSavableManager();
  ~CSavableManager() override;
  virtual void AddFileLocToWatch(Loc loc) = 0;
  virtual void RemoveLocToWatch(Loc loc) = 0;
  // One time for each location, 0 for a file that does not exist. `check_disk` asks for the time on
  // disk now rather than the last one known.
  virtual std::vector<DiskTime> GetLastModTimes(const std::vector<Loc>& loc_list,
                                                bool check_disk) = 0;
};

class CSavable;

// The object went from unmodified to modified or back; true when it is unmodified now.
inline constexpr CSignal<CSavable, bool> kSavePoint{"save-point"};

// Something open in the host that is loaded from a file and saved to it.
class CSavable : public CDestroyable {
 public:
  explicit CSavable(Loc loc);
  ~CSavable() override;
  virtual bool GetInitialReadCompleted() const = 0;
  // The modification time of the file when it was last read or written.
  virtual DiskTime GetLastKnownModTime() const = 0;

  const Loc fLocation;
};

}  // namespace pysource
