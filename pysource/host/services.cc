// The out-of-line parts of the abstract services, which place their virtual tables in one object
// file.

#include "pysource/host/analysisdb.h"
#include "pysource/host/analysismgr.h"
#include "pysource/host/cachemgr.h"
#include "pysource/host/infocachebase.h"
#include "pysource/host/repr.h"
#include "pysource/host/savable.h"
#include "pysource/host/singleton.h"

namespace pysource {

CInfoCacheBase::~CInfoCacheBase() = default;

Text CDatabaseRecord::Repr() const {
  return FormatBraces("({}, {}, {}, {}, {}, {}, {}, {}, {}, {})",
                      {for_loc, pysource::Repr(for_scope), pysource::Repr(scan_name), scanned_loc,
                       pysource::Repr(scanned_scope), scopes_seen, pysource::Repr(class_equivs),
                       pysource::Repr(import_equivs), pysource::Repr(data), reserved});
}

CAnalysisDb::CAnalysisDb() : CDestroyable({kExternalDbContentsChanged.name}) {}
CAnalysisDb::~CAnalysisDb() = default;

CAnalysisFactory::CAnalysisFactory() : CDestroyable({kImportResolutionChanged.name}) {}
CAnalysisFactory::~CAnalysisFactory() = default;

CPySourceAnalysis::CPySourceAnalysis(Loc loc)
    : CDestroyable({kScopeLogicalsModified.name}), fLocation(loc) {}
CPySourceAnalysis::~CPySourceAnalysis() = default;

CSavableManager::CSavableManager() : CDestroyable({kExternalFilesChanged.name}) {}
CSavableManager::~CSavableManager() = default;

CSavable::CSavable(Loc loc) : CDestroyable({kSavePoint.name}), fLocation(loc) {}
CSavable::~CSavable() = default;

CCacheBuffer::~CCacheBuffer() = default;
CCacheManager::~CCacheManager() = default;

namespace singleton {
namespace {

CSingletons* gSingletons = nullptr;

}  // namespace

CSingletons& GetSingletons() {
  static CSingletons own;
  return gSingletons != nullptr ? *gSingletons : own;
}

CSingletons* SetSingletons(CSingletons* singletons) {
  return std::exchange(gSingletons, singletons);
}

}  // namespace singleton
}  // namespace pysource
