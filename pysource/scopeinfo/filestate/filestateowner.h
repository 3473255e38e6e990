// What per-file entries and key indexes need from the cache that owns them.
#pragma once

#include <memory>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/logger.h"
#include "pysource/host/text.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::scopeinfo {

class CCrossFileData;
class CPerFileEntry;

// Entries are shared: a read of one file may trim another file out of the cache while an operation
// up the stack is still working on its entry.
using CPerFilePtr = std::shared_ptr<CPerFileEntry>;

// Implemented by CInfoCache, on the floor above. Deliberately narrow: an entry reads the scan
// names, finds other entries and decodes records; it never emits a signal, writes or trims.
class CFileStateOwner {
 public:
  virtual ~CFileStateOwner();

  // The scan names; the first is the primary scan.
  virtual const std::vector<Text>& ScanNames() const = 0;
  virtual CCrossFileData& CrossFileData() = 0;
  virtual CScopeInfoSerializer& InfoSerializer() = 0;
  virtual const CLogger& Log() const = 0;
  // The entry of the file, or null. Never makes one, and never calls the database.
  virtual CPerFilePtr FindPerFile(Loc loc) const = 0;
  // The entry of the file, brought up to date with the database. Null only if there is none and
  // `create` is false.
  virtual CPerFilePtr GetPerFile(Loc loc, bool create) = 0;
};

}  // namespace pysource::scopeinfo
