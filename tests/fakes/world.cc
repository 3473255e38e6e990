#include "tests/fakes/world.h"

#include "pysource/host/assertions.h"
#include "pysource/host/velk.h"

namespace pysource::fakes {

CWorld::CWorld()
    : _fOldSingletons(singleton::SetSingletons(&fSingletons)),
      _fOldLoop(velk::SetMainLoop(&fLoop)),
      _fAssertionsBefore(SetAssertionsActive(true)) {}

CWorld::~CWorld() {
  EXPECT_EQ(ClassConnectionCount(), 0U) << "still connected to a class-wide signal";
  EXPECT_EQ(fLoop.PendingIdleCount(), 0U) << "an idle call is still scheduled";
  EXPECT_EQ(fLoop.PendingTimeoutCount(), 0U) << "a timer is still running";
  SetAssertionsActive(_fAssertionsBefore);
  velk::SetMainLoop(_fOldLoop);
  singleton::SetSingletons(_fOldSingletons);
}

}  // namespace pysource::fakes
