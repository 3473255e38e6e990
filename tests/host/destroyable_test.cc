// Signals and the destroy protocol.

#include "pysource/host/destroyable.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <stdexcept>
#include <string>
#include <vector>

#include "pysource/host/errors.h"
#include "tests/fakes/world.h"

namespace pysource {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

class CBell;
inline constexpr CSignal<CBell, int, const Text&> kRung{"rung"};
inline constexpr CSignal<CBell> kMuted{"muted"};
inline constexpr CSignal<CBell> kNotOfBells{"not of bells"};

class CBell : public CDestroyable {
 public:
  CBell() : CDestroyable({kRung.name, kMuted.name}) {}
  ~CBell() override { destroy(); }
  std::function<void()> fAtEnd;

 protected:
  void _destroy_impl() override {
    if (fAtEnd) {
      fAtEnd();
    }
  }
};

// Handlers write what they were called with into fCalls.
class Signals : public fakes::CWorldTest {
 protected:
  auto Note(const std::string& who) {
    return [this, who](CBell&, int count, const Text& how) {
      fCalls.push_back(who + " " + std::to_string(count) + how);
    };
  }
  std::vector<std::string> Ring(CBell& bell) {
    fCalls.clear();
    bell.emit(kRung, 1, "x");
    return fCalls;
  }
  std::vector<std::string> fCalls;
};

TEST_F(Signals, ReachClassWideHandlersFirstAndEachKindInOrderOfConnection) {
  CBell bell;
  CBell other;
  bell.connect(kRung, Note("instance 1"));
  const auto first = class_connect(kRung, Note("class 1"));
  bell.connect(kRung, Note("instance 2"));
  const auto second = class_connect(kRung, Note("class 2"));
  bell.connect(kMuted, [&](CBell&) { fCalls.emplace_back("muted"); });
  EXPECT_THAT(Ring(bell),
              ElementsAre("class 1 1x", "class 2 1x", "instance 1 1x", "instance 2 1x"));
  EXPECT_THAT(Ring(other), ElementsAre("class 1 1x", "class 2 1x"));

  class_disconnect(first);
  class_disconnect(first);
  CBell later;
  EXPECT_THAT(Ring(later), ElementsAre("class 2 1x"));
  class_disconnect(second);
  EXPECT_THAT(Ring(later), IsEmpty());
  EXPECT_EQ(ClassConnectionCount(), 0U);
}

TEST_F(Signals, HandlersChangeConnectionsWhileTheyRun) {
  CBell bell;
  ConnectionId ended = 0;
  bell.connect(kRung, [&](CBell& emitter, int count, const Text& how) {
    Note("first")(emitter, count, how);
    if (count == 1) {
      emitter.connect(kRung, Note("made meanwhile"));
      emitter.disconnect(ended);
      emitter.emit(kRung, 2, how);
    }
  });
  ended = bell.connect(kRung, Note("ended meanwhile"));
  // One that was made during the emission is met by the emission inside, not by its own.
  EXPECT_THAT(Ring(bell), ElementsAre("first 1x", "first 2x", "made meanwhile 2x"));
  EXPECT_EQ(bell.ConnectionCount(), 2U);
}

TEST_F(Signals, AHandlerThatEndsItselfOrTheEmitterIsTheLastOne) {
  auto held = std::make_shared<int>();
  CBell bell;
  ConnectionId own = 0;
  own = bell.connect(kRung, [&, held](CBell& emitter, int, const Text&) {
    emitter.disconnect(own);
    EXPECT_EQ(held.use_count(), 2);  // its closure stays until it returns
  });
  bell.connect(kRung, [](CBell& emitter, int, const Text&) {
    emitter.destroy();
    EXPECT_TRUE(emitter.destroyed());
  });
  bell.connect(kRung, Note("after the end"));
  EXPECT_THAT(Ring(bell), IsEmpty());
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_EQ(bell.ConnectionCount(), 0U);
}

TEST_F(Signals, WhatAHandlerThrowsReachesTheEmitterAndStopsTheEmission) {
  CBell bell;
  bell.connect(kRung, [](CBell&, int, const Text&) { throw std::runtime_error("no"); });
  bell.connect(kRung, Note("later"));
  EXPECT_THROW(bell.emit(kRung, 1, "x"), std::runtime_error);
  EXPECT_THAT(fCalls, IsEmpty());
}

TEST_F(Signals, OfAnotherClassAreAnAssertion) {
  CBell bell;
  EXPECT_THROW(bell.emit(kNotOfBells), CAssertionError);
  EXPECT_THROW(bell.connect(kNotOfBells, [](CBell&) {}), CAssertionError);
}

TEST_F(Signals, ConnectionsWhileAliveGoWithTheirOwner) {
  CBell bell;
  auto owner = std::make_unique<CBell>();
  auto sibling = std::make_unique<CBell>();
  bell.connect_while_alive(kRung, Note("owner"), *owner);
  class_connect_while_alive(kRung, Note("class owner"), *owner);
  bell.connect_while_alive(kRung, Note("sibling"), *sibling);
  bell.connect_while_alive(kRung, Note("itself"), bell);
  EXPECT_THAT(Ring(bell), ElementsAre("class owner 1x", "owner 1x", "sibling 1x", "itself 1x"));

  owner->destroy();
  EXPECT_THAT(Ring(bell), ElementsAre("sibling 1x", "itself 1x"));
  EXPECT_EQ(ClassConnectionCount(), 0U);
  // Nothing can be connected for as long as something lives that has ended.
  bell.connect_while_alive(kRung, Note("late"), *owner);
  class_connect_while_alive(kRung, Note("class late"), *owner);
  EXPECT_EQ(bell.ConnectionCount(), 2U);

  sibling.reset();  // the destructor alone does it, too
  EXPECT_THAT(Ring(bell), ElementsAre("itself 1x"));

  // An emitter that ends first leaves nothing for its owner to trip over.
  {
    CBell short_lived;
    short_lived.connect_while_alive(kRung, Note("short"), bell);
  }
  bell.destroy();
  EXPECT_THAT(Ring(bell), IsEmpty());
}

// A handler that goes may take objects along whose end changes the very table it is taken from.
TEST_F(Signals, AClosureThatEndsMayChangeTheConnectionsItself) {
  CBell bell;
  for (int i = 0; i < 3; ++i) {
    std::shared_ptr<void> last_act(nullptr, [&](void*) {
      bell.disconnect(bell.connect(kMuted, [](CBell&) {}));
      fCalls.emplace_back("closure ended");
    });
    bell.connect(kMuted, [last_act](CBell&) {});
  }
  bell.destroy();
  EXPECT_EQ(fCalls.size(), 3U);
  EXPECT_EQ(bell.ConnectionCount(), 0U);
}

TEST_F(Signals, DestroyRunsOnceAndEndsConnectionsEvenIfItFails) {
  CBell bell;
  bell.connect(kRung, Note("handler"));
  int runs = 0;
  bell.fAtEnd = [&] {
    ++runs;
    EXPECT_FALSE(bell.destroyed());
    bell.destroy();               // inside itself: nothing
    bell.emit(kRung, runs, "y");  // signals still work
    throw std::runtime_error("the disk is full");
  };
  EXPECT_THROW(bell.destroy(), std::runtime_error);
  EXPECT_TRUE(bell.destroyed());
  EXPECT_EQ(bell.ConnectionCount(), 0U);
  bell.destroy();
  EXPECT_EQ(runs, 1);
  EXPECT_THAT(fCalls, ElementsAre("handler 1y"));
}

}  // namespace
}  // namespace pysource
