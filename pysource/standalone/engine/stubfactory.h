// The analysis factory of the standalone host: the stub m.pyi beside m.py supplies further
// information for it.
#pragma once

#include <vector>

#include "pysource/host/analysismgr.h"
#include "pysource/host/location.h"

namespace pysource::standalone {

class CStubFactory final : public CAnalysisFactory {
 public:
  // `loc_cache` must outlive this.
  explicit CStubFactory(CLocationCache& loc_cache);
  ~CStubFactory() override;

  // The stub of a .py file if there is one now. The cache keeps the answer until
  // kImportResolutionChanged, which the host emits when a stub comes or goes.
  std::vector<Loc> GetSecondaryLocations(Loc loc) override;

 private:
  CLocationCache& _fLocCache;
};

}  // namespace pysource::standalone
