// The world of one test: its own singletons, main loop and locations.
//
// While a world exists, its singletons and its loop are the current ones, and assertions are
// active. Its destructor restores the previous state, and fails the test if a class-wide
// connection, an idle call or a timer is left: that is a fault of the code under test.
//
// REQUIRES: the test makes its world first, and destroys everything else before it.
#pragma once

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include "pysource/host/infocachebase.h"
#include "pysource/host/location.h"
#include "pysource/host/manualloop.h"
#include "pysource/host/singleton.h"

namespace pysource::fakes {

class CWorld {
 public:
  CWorld();
  ~CWorld();
  CWorld(const CWorld&) = delete;
  CWorld& operator=(const CWorld&) = delete;

  // The location of a source file, "a.py" being file:///src/a.py.
  Loc File(TextView name) { return fLocCache.GetLocation("file:///src/" + Text(name)); }

  CLocationCache fLocCache;
  CSingletons fSingletons;  // the managers are null until a test sets its fakes
  velk::CManualLoop fLoop;  // time moves and idle calls run when the test says so

 private:
  CSingletons* const _fOldSingletons;
  velk::CMainLoop* const _fOldLoop;
  const bool _fAssertionsBefore;
};

// A fixture with a world. The members of a derived fixture are destroyed before the world.
class CWorldTest : public ::testing::Test {
 protected:
  CWorld fWorld;
};

// The info cache as the lower floors see it: an object that emits its signals.
class CFakeInfoCache final : public CInfoCacheBase {
 public:
  CFakeInfoCache() : CInfoCacheBase({kScopesModified.name, kNeedsScanAdded.name}) {}
  Bytes EncodeScopeInfo(const scopeinfo::CScopeInfo&) override { return "encoded"; }
};

}  // namespace pysource::fakes
