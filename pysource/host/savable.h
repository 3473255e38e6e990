// Files on disk, and the objects in the host that are saved to them.
#pragma once

#include <vector>

#include "pysource/host/analysisdb.h"
#include "pysource/host/destroyable.h"
#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"

namespace pysource {

class CSavableManager;

// Files were changed outside the host: from each file to its new modification time.
inline constexpr CSignal<CSavableManager, const CLocMtimeDict&> kExternalFilesChanged{
    "external-files-changed"};

// Watches files and knows their modification times. Implemented by the host. The watches are a set:
// watching a file twice is the same as watching it once.
class CSavableManager : public CDestroyable {
 public:
  CSavableManager();
  ~CSavableManager() override;
  virtual void AddFileLocToWatch(Loc loc) = 0;
  virtual void RemoveLocToWatch(Loc loc) = 0;
  // The time of each location, in order; 0 for a file that does not exist. With `check_disk` the
  // present time on disk, otherwise the last known one.
  virtual std::vector<DiskTime> GetLastModTimes(const std::vector<Loc>& loc_list,
                                                bool check_disk) = 0;
};

class CSavable;

// The object became modified or unmodified; the argument is true when it is unmodified now.
inline constexpr CSignal<CSavable, bool> kSavePoint{"save-point"};

// An object that is open in the host, loaded from a file and saved to it.
class CSavable : public CDestroyable {
 public:
  explicit CSavable(Loc loc);
  ~CSavable() override;
  virtual bool GetInitialReadCompleted() const = 0;
  // The modification time of the file at the last read or write.
  virtual DiskTime GetLastKnownModTime() const = 0;

  const Loc fLocation;
};

}  // namespace pysource
