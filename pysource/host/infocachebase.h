// What the floors below the info cache know about it: its signals, and that it can encode a record.
//
// Records, derived-value caches and the singletons use the one info cache of the process through
// this class, without knowing the class that implements it.
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

// These scopes changed: from each file to scope names, where kWildcardScope stands for the whole
// file.
// REQUIRES: handlers do not change the dictionary or its sets, which can be shared.
inline constexpr CSignal<CInfoCacheBase, const CChangedDict&> kScopesModified{"scopes-modified"};

// These scans must be run (again).
inline constexpr CSignal<CInfoCacheBase, const CNeedsScanSet&, Priority> kNeedsScanAdded{
    "needs-scan-added"};

class CInfoCacheBase : public CDestroyable {
 public:
  using CDestroyable::CDestroyable;
  ~CInfoCacheBase() override;

  // The encoded form of the record, made with the serializer of the cache.
  virtual Bytes EncodeScopeInfo(const scopeinfo::CScopeInfo& info) = 0;
};

}  // namespace pysource
