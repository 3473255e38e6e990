// One test's own world: singletons, main loop and locations that nobody else sees.
//
// While a world exists its singletons and its loop are the current ones and assertions are active;
// when it ends, the ones before come back. At its end nothing may be connected to a class-wide
// signal, scheduled or timed any more: what is left is a fault of the code under test and fails the
// test. So make the world first, and let everything else end before it.
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

// A test case with a world. Members of a derived fixture end before the world does.
class CWorldTest : public ::testing::Test {
 protected:
  CWorld fWorld;
};

// The info cache as far as it is seen from below: something that emits its signals.
class CFakeInfoCache final : public CInfoCacheBase {
 public:
  CFakeInfoCache() : CInfoCacheBase({kScopesModified.name, kNeedsScanAdded.name}) {}
  Bytes EncodeScopeInfo(const scopeinfo::CScopeInfo&) override { return "encoded"; }
};

}  // namespace pysource::fakes
