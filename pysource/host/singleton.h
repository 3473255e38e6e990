// The one way to the objects that exist once in a process.
#pragma once

#include "pysource/host/destroyable.h"

namespace pysource {

class CSavableManager;
class CCacheManager;
struct CAnalysisManager;

// The managers are not owned. They exist before the first info cache is made and outlive it.
struct CSingletons {
  CSavableManager* fSavableMgr = nullptr;
  CCacheManager* fCacheMgr = nullptr;
  CAnalysisManager* fAnalysisMgr = nullptr;
  // Handlers of the signals of whole classes.
  CClassConnections fClassConnections;
};

namespace singleton {

// The current singletons: those set last, or an empty set of the process's own.
CSingletons& GetSingletons();

// Makes `singletons` the current ones (null for the process's own) and returns the ones before. Not
// owned; a test makes its own world with it and puts the old one back at its end.
CSingletons* SetSingletons(CSingletons* singletons);

}  // namespace singleton
}  // namespace pysource
