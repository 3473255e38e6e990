// What the floors below the info cache know of it: its signals, and that it can encode a record.
//
// Records, derived-value caches and the singletons need to reach the one info cache of the process
// without knowing its class.
#pragma once

#include <initializer_list>

#include "pysource/host/destroyable.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"

namespace pysource {

namespace scopeinfo {
class CScopeInfo;
}

class CInfoCacheBase;

// These scopes changed: from file to scope names, where kWildcardScope stands for all of the file.
inline constexpr CSignal<CInfoCacheBase, const CChangedDict&> kScopesModified{"scopes-modified"};

// These scans must be run (again).
inline constexpr CSignal<CInfoCacheBase, const CNeedsScanSet&, Priority> kNeedsScanAdded{
    "needs-scan-added"};

class CInfoCacheBase : public CDestroyable {
 public:
  using CDestroyable::CDestroyable;
  ~CInfoCacheBase() override;

  // The encoded form of the record, made by the cache's one serializer.
  virtual Bytes EncodeScopeInfo(const scopeinfo::CScopeInfo& info) = 0;
};

}  // namespace pysource
