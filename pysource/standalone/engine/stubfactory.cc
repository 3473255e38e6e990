#include "pysource/standalone/engine/stubfactory.h"

#include <string>

namespace pysource::standalone {

CStubFactory::CStubFactory(CLocationCache& loc_cache) : _fLocCache(loc_cache) {}
CStubFactory::~CStubFactory() = default;

std::vector<Loc> CStubFactory::GetSecondaryLocations(Loc loc) {
  if (!loc->fUrl.ends_with(".py")) {
    return {};
  }
  const Loc stub = _fLocCache.GetLocation(loc->fUrl + "i");
  return stub->DoesResourceExist() ? std::vector<Loc>{stub} : std::vector<Loc>();
}

}  // namespace pysource::standalone
