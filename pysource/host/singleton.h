// The objects that exist once in a process, reached through one function. Tests replace them as a
// whole.
#pragma once

#include "pysource/host/destroyable.h"

namespace pysource {

class CSavableManager;
class CCacheManager;
struct CAnalysisManager;

// The managers are not owned.
// REQUIRES: the managers exist before the first info cache is made, and outlive it.
struct CSingletons {
  CSavableManager* fSavableMgr = nullptr;
  CCacheManager* fCacheMgr = nullptr;
  CAnalysisManager* fAnalysisMgr = nullptr;
  // Handlers of the signals of whole classes.
  CClassConnections fClassConnections;
};

namespace singleton {

// The current singletons: those set last, or the default ones of the process, which are empty at
// first.
CSingletons& GetSingletons();

// Makes `singletons` the current ones (null: the default ones) and returns those before. Not owned.
// A test uses it to make its own world, and restores the old one at its end.
CSingletons* SetSingletons(CSingletons* singletons);

}  // namespace singleton
}  // namespace pysource
