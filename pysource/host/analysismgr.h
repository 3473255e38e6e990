// The analysis side of the engine: where secondary files and import resolution come from, and the
// one object that holds database, factory and info cache together.
#pragma once

#include <vector>

#include "pysource/host/analysisdb.h"
#include "pysource/host/destroyable.h"
#include "pysource/host/infocachebase.h"
#include "pysource/host/location.h"
#include "pysource/host/text.h"

namespace pysource {

class CAnalysisFactory;

// How imports resolve has changed, for every file.
inline constexpr CSignal<CAnalysisFactory> kImportResolutionChanged{"import-resolution-changed"};

class CAnalysisFactory : public CDestroyable {
 public:
  CAnalysisFactory();
  ~CAnalysisFactory() override;
  // The files that supply further information for `loc`, such as its stub; none for most.
  virtual std::vector<Loc> GetSecondaryLocations(Loc loc) = 0;
};

class CPySourceAnalysis;

// These scopes of the analysis changed; kWildcardScope among them means all.
inline constexpr CSignal<CPySourceAnalysis, const TextSet&> kScopeLogicalsModified{
    "scope-logicals-modified"};

// The live analysis of one open file.
class CPySourceAnalysis : public CDestroyable {
 public:
  struct CLogicalCache {
    // The disk time of the content that the analysis was last in step with.
    DiskTime fMatchedDiskMTime = -1.0;
  };

  explicit CPySourceAnalysis(Loc loc);
  ~CPySourceAnalysis() override;

  const Loc fLocation;
  CLogicalCache fLogicalCache;
};

// Not owned, all three; set before the first info cache is used.
struct CAnalysisManager {
  CAnalysisDb* fAnalysisDb = nullptr;
  CAnalysisFactory* fAnalysisFactory = nullptr;
  CInfoCacheBase* fInfoCache = nullptr;  // the one info cache of the process
};

}  // namespace pysource
