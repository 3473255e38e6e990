// The open buffers of the host.
#pragma once

#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"

namespace pysource {

// The text of an open file.
class CCacheBuffer {
 public:
  virtual ~CCacheBuffer();
  virtual bool IsModified() const = 0;
  // The modification time of the file when it was last read or written.
  virtual DiskTime GetLastKnownModTime() const = 0;
};

class CCacheManager {
 public:
  virtual ~CCacheManager();
  // The open buffer of that location, or null. With `only_loaded` a buffer that is still to be read
  // does not count.
  virtual CCacheBuffer* DoesCacheBufferExist(Loc loc, bool only_loaded) = 0;
};

}  // namespace pysource
