// The analysis side of the engine: the source of secondary files and of import resolution, and the
// one object that ties database, factory and info cache together.
#pragma once

#include <vector>

#include "pysource/host/analysisdb.h"
#include "pysource/host/destroyable.h"
#include "pysource/host/infocachebase.h"
#include "pysource/host/location.h"
#include "pysource/host/text.h"

namespace pysource {

class CAnalysisFactory;

// Imports may resolve differently now, in every file.
inline constexpr CSignal<CAnalysisFactory> kImportResolutionChanged{"import-resolution-changed"};

// Knows the secondary files of each file. Implemented by the host.
class CAnalysisFactory : public CDestroyable {
 public:
  CAnalysisFactory();
  ~CAnalysisFactory() override;
  // The files that supply further information for `loc`, such as its stub; empty for most files.
  // The info cache keeps the answer until kImportResolutionChanged.
  virtual std::vector<Loc> GetSecondaryLocations(Loc loc) = 0;
};

class CPySourceAnalysis;

// These scopes of the analysis changed; kWildcardScope among them stands for all scopes.
inline constexpr CSignal<CPySourceAnalysis, const TextSet&> kScopeLogicalsModified{
    "scope-logicals-modified"};

// The live analysis of one open file.
class CPySourceAnalysis : public CDestroyable {
 public:
  struct CLogicalCache {
    // The disk time of the content that the analysis last matched.
    DiskTime fMatchedDiskMTime = -1.0;
  };

  explicit CPySourceAnalysis(Loc loc);
  ~CPySourceAnalysis() override;

  const Loc fLocation;
  CLogicalCache fLogicalCache;
};

// The three objects that every part of the engine finds through the singletons; none is owned.
// REQUIRES: the host sets all three before it uses the info cache.
struct CAnalysisManager {
  CAnalysisDb* fAnalysisDb = nullptr;
  CAnalysisFactory* fAnalysisFactory = nullptr;
  CInfoCacheBase* fInfoCache = nullptr;  // the one info cache of the process
};

}  // namespace pysource
