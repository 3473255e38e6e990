// The open buffers of the host, and where the info cache asks for them.
#pragma once

#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"

namespace pysource {

// The text of an open file.
class CCacheBuffer {
 public:
  virtual ~CCacheBuffer();
  virtual bool IsModified() const = 0;
  // The modification time of the file at the last read or write.
  virtual DiskTime GetLastKnownModTime() const = 0;
};

// Implemented by the host.
class CCacheManager {
 public:
  virtual ~CCacheManager();
  // The open buffer of the location, or null. With `only_loaded` a buffer whose file has not been
  // read yet does not count.
  virtual CCacheBuffer* DoesCacheBufferExist(Loc loc, bool only_loaded) = 0;
};

}  // namespace pysource
