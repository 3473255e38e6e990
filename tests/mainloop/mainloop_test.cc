// The main loops: one body of cases for both of them, then what each has of its own.

#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "pysource/host/assertions.h"
#include "pysource/host/errors.h"
#include "pysource/host/manualloop.h"
#include "pysource/standalone/mainloop/glibmainloop.h"

namespace pysource::standalone {
namespace {

using testing::ElementsAre;
using velk::PRIORITY_DEFAULT_IDLE;
using velk::PRIORITY_HIGH_IDLE;
using velk::PRIORITY_LOW_IDLE;

constexpr unsigned kNever = 1000000;  // milliseconds; far beyond any test

// A loop, and how a test makes it run something.
class CLoopWorld {
 public:
  virtual ~CLoopWorld() = default;
  virtual velk::CMainLoop& Loop() = 0;
  virtual void Step() = 0;
  virtual size_t PendingCount() const = 0;
};

class CManualWorld final : public CLoopWorld {
 public:
  velk::CMainLoop& Loop() override { return loop; }
  void Step() override {
    if (!loop.RunOneIdle()) {
      loop.Advance(1);
    }
  }
  size_t PendingCount() const override {
    return loop.PendingIdleCount() + loop.PendingTimeoutCount();
  }
  velk::CManualLoop loop;
};

// On a context of its own, which nothing else of the process adds to.
class CGlibWorld final : public CLoopWorld {
 public:
  velk::CMainLoop& Loop() override { return *loop; }
  void Step() override { loop->Iterate(true); }
  size_t PendingCount() const override { return loop->PendingCount(); }
  const std::shared_ptr<GMainContext> context{g_main_context_new(), &g_main_context_unref};
  std::unique_ptr<CGlibMainLoop> loop = std::make_unique<CGlibMainLoop>(context.get());
};

template <class World>
std::unique_ptr<CLoopWorld> Make() {
  return std::make_unique<World>();
}

class AnyLoop : public testing::TestWithParam<std::unique_ptr<CLoopWorld> (*)()> {
 protected:
  // A callback that notes its name and asks to be called again until it has run `times` times.
  velk::Callback Note(const std::string& name, int times = 1) {
    return [this, name, left = times]() mutable {
      fRan.push_back(name);
      return --left > 0;
    };
  }
  void RunUntilPending(size_t count) {
    while (fWorld->PendingCount() != count) {
      fWorld->Step();
    }
  }

  std::vector<std::string> fRan;
  const std::unique_ptr<CLoopWorld> fWorld = GetParam()();
  velk::CMainLoop& fLoop = fWorld->Loop();
};

INSTANTIATE_TEST_SUITE_P(Manual, AnyLoop, testing::Values(&Make<CManualWorld>));
INSTANTIATE_TEST_SUITE_P(Glib, AnyLoop, testing::Values(&Make<CGlibWorld>));

TEST_P(AnyLoop, IdleCallsRunByPriorityAndTakeTurnsWithinOne) {
  fLoop.idle_add(Note("low"), PRIORITY_LOW_IDLE);
  fLoop.idle_add(Note("a", 3), PRIORITY_DEFAULT_IDLE);
  fLoop.idle_add(Note("b", 2), PRIORITY_DEFAULT_IDLE);
  fLoop.idle_add(Note("high", 2), PRIORITY_HIGH_IDLE);
  RunUntilPending(0);
  EXPECT_THAT(fRan, ElementsAre("high", "high", "a", "b", "a", "b", "a", "low"));
}

TEST_P(AnyLoop, TimersRunInTheirTimeAndAgainAsLongAsTheyAsk) {
  const auto never = fLoop.timeout_add(kNever, Note("never"));
  fLoop.timeout_add(1, Note("tick", 3));
  fLoop.timeout_add(0, Note("at once"));
  RunUntilPending(1);
  EXPECT_THAT(fRan, testing::UnorderedElementsAre("tick", "tick", "tick", "at once"));
  fLoop.timeout_remove(never);
  EXPECT_EQ(fWorld->PendingCount(), 0U);
}

TEST_P(AnyLoop, CallbacksCancelThemselvesAndOthersAndAddNewOnes) {
  const auto held = std::make_shared<int>();
  const auto keep = [held] { return true; };
  const velk::Tag other_idle = fLoop.idle_add(keep, PRIORITY_LOW_IDLE);
  const velk::Tag other_timer = fLoop.timeout_add(kNever, keep);
  velk::Tag own_idle = 0;
  own_idle = fLoop.idle_add(
      [&, held] {
        fLoop.idle_remove(own_idle);
        fLoop.idle_remove(other_idle);
        fLoop.timeout_remove(other_timer);
        EXPECT_EQ(held.use_count(), 3);  // `held`, `keep` and what is running
        fLoop.idle_remove(other_idle);   // a second time is no error
        fLoop.timeout_remove(own_idle + 1000);
        fLoop.idle_add(Note("added"), PRIORITY_HIGH_IDLE);
        return true;  // in vain
      },
      PRIORITY_HIGH_IDLE);
  RunUntilPending(0);
  EXPECT_THAT(fRan, ElementsAre("added"));
  EXPECT_EQ(held.use_count(), 2);
  velk::Tag own_timer = 0;
  own_timer = fLoop.timeout_add(0, [&] {
    fLoop.timeout_remove(own_timer);
    return true;
  });
  RunUntilPending(0);
  EXPECT_EQ((std::set<velk::Tag>{0, own_idle, own_timer, other_idle, other_timer}.size()), 5U);
}

TEST_P(AnyLoop, WhatACallbackThrowsIsReportedAndEndsIt) {
  testing::internal::CaptureStderr();
  fLoop.idle_add([]() -> bool { throw std::runtime_error("disk full"); }, PRIORITY_HIGH_IDLE);
  fLoop.idle_add([]() -> bool { throw 7; }, PRIORITY_DEFAULT_IDLE);
  fLoop.timeout_add(0, []() -> bool { FailAssertion("sorted", "file.cc", 3); });
  RunUntilPending(0);
  const std::string output = testing::internal::GetCapturedStderr();
  EXPECT_THAT(output, testing::HasSubstr("a callback failed: disk full\n"));
  EXPECT_THAT(output, testing::HasSubstr("a callback failed with an unknown error\n"));
  EXPECT_THAT(output, testing::HasSubstr("a callback failed: assertion at file.cc:3 sorted\n"));
}

TEST_P(AnyLoop, ACallbackMayRunTheLoopAndIsNotEnteredAgain) {
  velk::Tag outer = 0;
  outer = fLoop.idle_add(
      [&] {
        fRan.emplace_back("outer");
        fLoop.idle_add(
            [&] {
              fLoop.idle_remove(outer);
              fRan.emplace_back("inner");
              return false;
            },
            PRIORITY_LOW_IDLE);
        while (fRan.back() != "inner") {
          fWorld->Step();
        }
        return true;  // in vain
      },
      PRIORITY_HIGH_IDLE);
  RunUntilPending(0);
  EXPECT_THAT(fRan, ElementsAre("outer", "inner"));
}

TEST_P(AnyLoop, IsReachedThroughVelkWhileItIsTheCurrentOne) {
  velk::CMainLoop* const before = velk::SetMainLoop(&fLoop);
  velk::idle_remove(velk::idle_add(Note("cancelled")));
  velk::timeout_remove(velk::timeout_add(0, Note("cancelled")));
  velk::idle_add(Note("low"), PRIORITY_LOW_IDLE);
  velk::idle_add(Note("default"));
  RunUntilPending(0);
  EXPECT_THAT(fRan, ElementsAre("default", "low"));
  EXPECT_EQ(velk::SetMainLoop(nullptr), &fLoop);
  EXPECT_THROW(velk::idle_add(Note("nowhere")), CTypeError);
  velk::SetMainLoop(before);
}

TEST(ManualLoop, RunsTimersAtTheirTimesInOrder) {
  velk::CManualLoop loop;
  std::vector<std::string> ran;
  const auto add = [&](unsigned ms, const std::string& name, bool again) {
    return loop.timeout_add(ms, [&ran, name, again] {
      ran.push_back(name);
      return again;
    });
  };
  add(20, "20", false);
  const auto every_8 = add(8, "every 8", true);
  add(20, "20 too", false);
  loop.Advance(7);
  EXPECT_TRUE(ran.empty());
  loop.Advance(17);
  EXPECT_THAT(ran, ElementsAre("every 8", "every 8", "20", "20 too", "every 8"));
  loop.timeout_remove(every_8);

  // One of no milliseconds takes one, or the clock would never get past it.
  int left = 1000;
  const auto at_once = loop.timeout_add(0, [&] { return --left > 0; });
  loop.Advance(5);
  EXPECT_EQ(left, 994);
  loop.timeout_remove(at_once);

  // A callback may move the clock; it never goes back.
  ran.clear();
  loop.timeout_add(1, [&] {
    loop.Advance(50);
    add(10, "ten later", false);
    return false;
  });
  loop.Advance(5);
  loop.Advance(9);
  EXPECT_TRUE(ran.empty());
  loop.Advance(1);
  EXPECT_THAT(ran, ElementsAre("ten later"));
}

TEST(ManualLoop, RunsAsManyIdleCallsAsItIsTold) {
  velk::CManualLoop loop;
  int ran = 0;
  const auto tag = loop.idle_add([&] { return ++ran > 0; }, PRIORITY_LOW_IDLE);
  EXPECT_EQ(loop.RunIdle(5), 5U);
  EXPECT_EQ(ran, 5);
  loop.idle_add([&] { return (ran = 100) == 0; }, -1);  // before all that are positive
  EXPECT_TRUE(loop.RunOneIdle());
  EXPECT_EQ(ran, 100);
  loop.idle_remove(tag);
  EXPECT_FALSE(loop.RunOneIdle());
}

TEST(GlibLoop, RunsWhatOtherThreadsPostOnItsOwnThreadInOrder) {
  CGlibWorld world;
  constexpr size_t kThreads = 4;
  constexpr int kEach = 200;
  std::vector<std::vector<int>> ran(kThreads);
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  const auto loop_thread = std::this_thread::get_id();
  size_t left = kThreads * kEach;
  world.loop->timeout_add(kNever, [] { return false; });
  world.loop->Quit();  // nothing to quit
  for (auto& mine : ran) {
    threads.emplace_back([&] {
      for (int i = 0; i < kEach; ++i) {
        world.loop->PostFromThread([&, i] {
          EXPECT_EQ(std::this_thread::get_id(), loop_thread);
          mine.push_back(i);
          if (--left == 0) {
            world.loop->Quit();
          } else if (left == 10) {
            world.loop->Run();  // until the above; this run ends alone
            world.loop->PostFromThread([&] { world.loop->Quit(); });
          }
        });
      }
    });
  }
  world.loop->Run();  // asleep until something is posted
  for (auto& thread : threads) {
    thread.join();
  }
  for (const auto& mine : ran) {
    EXPECT_EQ(mine.size(), static_cast<size_t>(kEach));
    EXPECT_TRUE(std::is_sorted(mine.begin(), mine.end()));
  }
  EXPECT_EQ(world.PendingCount(), 1U);
}

TEST(GlibLoop, PostedWorkGoesAheadOfIdleCallsAndMayThrow) {
  CGlibWorld world;
  bool idle_ran = false;
  world.loop->idle_add([&] { return !(idle_ran = true); }, PRIORITY_HIGH_IDLE);
  testing::internal::CaptureStderr();
  world.loop->PostFromThread([&] {
    EXPECT_FALSE(idle_ran);
    throw std::runtime_error("a bad scan");
  });
  while (world.PendingCount() != 0) {
    world.Step();
  }
  EXPECT_THAT(testing::internal::GetCapturedStderr(), testing::HasSubstr("a bad scan"));
  EXPECT_FALSE(world.loop->Iterate(false));
}

TEST(GlibLoop, LeavesNothingBehindEvenWhenItEndsInACallback) {
  CGlibWorld world;
  const auto held = std::make_shared<int>();
  for (const bool in_callback : {false, true}) {
    world.loop = std::make_unique<CGlibMainLoop>(world.context.get());
    world.loop->timeout_add(kNever, [held] { return true; });
    world.loop->idle_add([held] { return true; }, PRIORITY_LOW_IDLE);
    world.loop->PostFromThread([&world, held, in_callback] {
      EXPECT_TRUE(in_callback);
      world.loop.reset();
    });
    if (in_callback) {
      world.Step();
    }
    world.loop.reset();
    EXPECT_EQ(held.use_count(), 1);
    EXPECT_FALSE(g_main_context_pending(world.context.get()));
  }
  // Without a context it is the default one, which an editor runs already.
  EXPECT_EQ(CGlibMainLoop().Context(), g_main_context_default());
}

}  // namespace
}  // namespace pysource::standalone
