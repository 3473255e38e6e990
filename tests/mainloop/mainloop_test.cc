// The main loops: one body of cases for both of them, then what each has of its own.

#include <glib.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <functional>
#include <memory>
#include <set>
#include <stdexcept>
#include <string>
#include <thread>
#include <vector>

#include "pysource/host/assertions.h"
#include "pysource/host/destroyable.h"
#include "pysource/host/errors.h"
#include "pysource/host/manualloop.h"
#include "pysource/host/velk.h"
#include "pysource/standalone/mainloop/glibmainloop.h"

namespace pysource::standalone {
namespace {

using testing::ElementsAre;
using testing::IsEmpty;

struct CManualWorld {
  void Step() {
    if (!loop.RunOneIdle()) {
      loop.Advance(1);
    }
  }
  size_t PendingCount() const { return loop.PendingIdleCount() + loop.PendingTimeoutCount(); }
  velk::CManualLoop loop;
};

// A loop on a context of its own, which nothing else of the process adds to.
struct CGlibWorld {
  struct CContext {
    CContext() : context(g_main_context_new()) {}
    ~CContext() { g_main_context_unref(context); }
    CContext(const CContext&) = delete;
    CContext& operator=(const CContext&) = delete;
    GMainContext* const context;
  };
  void Step() { loop.Iterate(true); }
  size_t PendingCount() const { return loop.PendingCount(); }
  CContext own;
  CGlibMainLoop loop{own.context};
};

template <class World>
class AnyLoop : public testing::Test {
 protected:
  // A callback that notes its name and asks to be called again until it has run `times` times.
  velk::Callback Note(const std::string& name, int times = 1) {
    return [this, name, left = times]() mutable {
      fRan.push_back(name);
      return --left > 0;
    };
  }
  void RunOut() {
    while (fWorld.PendingCount() != 0) {
      fWorld.Step();
    }
  }
  void RunUntil(const std::string& name) {
    while (fRan.empty() || fRan.back() != name) {
      fWorld.Step();
    }
  }

  std::vector<std::string> fRan;
  World fWorld;
  velk::CMainLoop& fLoop = fWorld.loop;
};

using Worlds = testing::Types<CManualWorld, CGlibWorld>;
TYPED_TEST_SUITE(AnyLoop, Worlds);

constexpr unsigned kNever = 1000000;  // milliseconds; far beyond any test

TYPED_TEST(AnyLoop, IdleCallsRunByPriorityAndTakeTurnsWithinOne) {
  this->fLoop.idle_add(this->Note("low"), velk::PRIORITY_LOW_IDLE);
  this->fLoop.idle_add(this->Note("a", 3), velk::PRIORITY_DEFAULT_IDLE);
  this->fLoop.idle_add(this->Note("b", 2), velk::PRIORITY_DEFAULT_IDLE);
  this->fLoop.idle_add(this->Note("high", 2), velk::PRIORITY_HIGH_IDLE);
  this->RunOut();
  EXPECT_THAT(this->fRan, ElementsAre("high", "high", "a", "b", "a", "b", "a", "low"));
}

TYPED_TEST(AnyLoop, TimersRunInTheirTimeAndAgainAsLongAsTheyAsk) {
  const auto never = this->fLoop.timeout_add(kNever, this->Note("never"));
  this->fLoop.timeout_add(1, this->Note("tick", 3));
  this->fLoop.timeout_add(0, this->Note("at once"));
  while (this->fWorld.PendingCount() != 1) {
    this->fWorld.Step();
  }
  EXPECT_THAT(this->fRan, testing::UnorderedElementsAre("tick", "tick", "tick", "at once"));
  this->fLoop.timeout_remove(never);
  EXPECT_EQ(this->fWorld.PendingCount(), 0U);
}

TYPED_TEST(AnyLoop, CallbacksCancelThemselvesAndOthersAndAddNewOnes) {
  auto& loop = this->fLoop;
  std::vector<velk::Tag> others{loop.idle_add(this->Note("other idle"), velk::PRIORITY_LOW_IDLE)};
  velk::Tag own_idle = 0;
  own_idle = loop.idle_add(
      [&] {
        this->fRan.emplace_back("idle");
        loop.idle_remove(own_idle);
        for (const velk::Tag tag : others) {
          loop.idle_remove(tag);
          loop.timeout_remove(tag);
          loop.idle_remove(tag);  // a second time is no error, nor is an unknown tag
        }
        loop.idle_remove(0);
        loop.timeout_remove(own_idle + 1000);
        loop.idle_add(this->Note("added"), velk::PRIORITY_HIGH_IDLE);
        return true;  // in vain
      },
      velk::PRIORITY_HIGH_IDLE);
  others.push_back(loop.timeout_add(kNever, this->Note("other timer")));
  this->RunOut();
  velk::Tag own_timer = 0;
  own_timer = loop.timeout_add(0, [&] {
    this->fRan.emplace_back("timer");
    loop.timeout_remove(own_timer);
    return true;
  });
  this->RunOut();
  EXPECT_THAT(this->fRan, ElementsAre("idle", "added", "timer"));
  EXPECT_EQ((std::set<velk::Tag>{0, own_idle, own_timer, others[0], others[1]}.size()), 5U);
}

TYPED_TEST(AnyLoop, ACallbackAndWhatItHoldsGoTogether) {
  auto& loop = this->fLoop;
  const auto held = std::make_shared<int>();
  const auto keep = [held] { return false; };
  loop.idle_remove(loop.idle_add(keep, velk::PRIORITY_LOW_IDLE));
  loop.timeout_remove(loop.timeout_add(kNever, keep));
  loop.idle_add(keep, velk::PRIORITY_LOW_IDLE);
  this->RunOut();
  EXPECT_EQ(held.use_count(), 2);  // `held` and `keep`
  // One that cancels itself keeps what it holds until it returns.
  velk::Tag tag = 0;
  tag = loop.idle_add(
      [&loop, &tag, held] {
        loop.idle_remove(tag);
        EXPECT_EQ(held.use_count(), 3);
        return true;
      },
      velk::PRIORITY_LOW_IDLE);
  this->RunOut();
  EXPECT_EQ(held.use_count(), 2);
}

TYPED_TEST(AnyLoop, WhatACallbackThrowsIsReportedAndEndsIt) {
  testing::internal::CaptureStdout();
  this->fLoop.idle_add([]() -> bool { throw std::runtime_error("disk full"); }, 100);
  this->fLoop.idle_add([]() -> bool { throw 7; }, 100);
  this->fLoop.timeout_add(0, []() -> bool { FailAssertion("sorted", "file.cc", 3); });
  this->fLoop.idle_add(this->Note("next"), velk::PRIORITY_LOW_IDLE);
  this->RunOut();
  const std::string output = testing::internal::GetCapturedStdout();
  EXPECT_THAT(output, testing::HasSubstr("a callback failed: disk full\n"));
  EXPECT_THAT(output, testing::HasSubstr("a callback failed with an unknown error\n"));
  EXPECT_THAT(output, testing::HasSubstr("a callback failed: assertion at file.cc:3 sorted\n"));
  EXPECT_THAT(this->fRan, ElementsAre("next"));
}

TYPED_TEST(AnyLoop, ACallbackMayRunTheLoopAndIsNotEnteredAgain) {
  velk::Tag outer = 0;
  outer = this->fLoop.idle_add(
      [&] {
        this->fRan.emplace_back("outer");
        this->fLoop.idle_add(this->Note("inner"), velk::PRIORITY_LOW_IDLE);
        this->RunUntil("inner");
        this->fLoop.idle_add(
            [&] {
              this->fLoop.idle_remove(outer);
              this->fRan.emplace_back("cancelled outer");
              return false;
            },
            velk::PRIORITY_LOW_IDLE);
        this->RunUntil("cancelled outer");
        return true;  // in vain
      },
      velk::PRIORITY_HIGH_IDLE);
  this->RunOut();
  EXPECT_THAT(this->fRan, ElementsAre("outer", "inner", "cancelled outer"));
}

class CSource : public CDestroyable {
 public:
  CSource();
};
inline constexpr CSignal<CSource, int> kChanged{"changed"};
CSource::CSource() : CDestroyable({kChanged.name}) {}

TYPED_TEST(AnyLoop, IsReachedThroughVelkWhileItIsTheCurrentOne) {
  velk::CMainLoop* const before = velk::SetMainLoop(&this->fLoop);
  velk::idle_remove(velk::idle_add(this->Note("cancelled")));
  velk::timeout_remove(velk::timeout_add(0, this->Note("cancelled")));
  velk::idle_add(this->Note("low"), velk::PRIORITY_LOW_IDLE);
  velk::idle_add(this->Note("default"));
  CSource source;
  source.connect(kChanged,
                 velk::NoArgCallback([&] { velk::timeout_add(1, this->Note("after a signal")); }));
  source.emit(kChanged, 1);
  this->RunOut();
  EXPECT_THAT(this->fRan, testing::UnorderedElementsAre("default", "low", "after a signal"));
  EXPECT_EQ(velk::SetMainLoop(nullptr), &this->fLoop);
  EXPECT_THROW(velk::idle_add(this->Note("nowhere")), CTypeError);
  velk::SetMainLoop(before);
}

// ---- The manual loop: its clock.

TEST(ManualLoop, RunsTimersAtTheirTimesInOrder) {
  velk::CManualLoop loop;
  std::vector<std::string> ran;
  const auto note = [&](const std::string& name, bool again) {
    return [&ran, name, again] {
      ran.push_back(name);
      return again;
    };
  };
  loop.timeout_add(20, note("20", false));
  const auto every_8 = loop.timeout_add(8, note("every 8", true));
  loop.timeout_add(20, note("20 too", false));
  loop.Advance(7);
  EXPECT_THAT(ran, IsEmpty());
  loop.Advance(1);
  EXPECT_THAT(ran, ElementsAre("every 8"));
  loop.Advance(16);
  EXPECT_THAT(ran, ElementsAre("every 8", "every 8", "20", "20 too", "every 8"));
  loop.timeout_remove(every_8);

  // A callback may move the clock; it never goes back. One of no milliseconds takes one.
  ran.clear();
  int left = 3;
  loop.timeout_add(0, [&] { return --left > 0; });
  loop.timeout_add(1, [&] {
    loop.Advance(50);
    loop.timeout_add(10, note("ten later", false));
    return false;
  });
  loop.Advance(5);
  EXPECT_EQ(left, 0);
  loop.Advance(9);
  EXPECT_THAT(ran, IsEmpty());
  loop.Advance(1);
  EXPECT_THAT(ran, ElementsAre("ten later"));
}

TEST(ManualLoop, RunsAsManyIdleCallsAsItIsTold) {
  velk::CManualLoop loop;
  int ran = 0;
  const auto tag = loop.idle_add([&] { return ++ran > 0; }, velk::PRIORITY_LOW_IDLE);
  EXPECT_EQ(loop.RunIdle(5), 5U);
  EXPECT_EQ(ran, 5);
  loop.idle_add(
      [&] {
        ran = 100;
        return false;
      },
      -1);  // before all that are positive
  EXPECT_TRUE(loop.RunOneIdle());
  EXPECT_EQ(ran, 100);
  loop.idle_remove(tag);
  EXPECT_FALSE(loop.RunOneIdle());
}

// ---- GLib's: running, other threads, its end.

TEST(GlibLoop, RunEndsWithItsOwnQuit) {
  CGlibWorld world;
  std::vector<std::string> ran;
  world.loop.Quit();  // nothing to quit
  world.loop.idle_add(
      [&] {
        world.loop.idle_add(
            [&] {
              world.loop.Quit();
              return false;
            },
            velk::PRIORITY_HIGH_IDLE);
        world.loop.Run();
        ran.emplace_back("inner ended");
        world.loop.idle_add(
            [&] {
              ran.emplace_back("outer goes on");
              world.loop.Quit();
              return false;
            },
            velk::PRIORITY_LOW_IDLE);
        return false;
      },
      velk::PRIORITY_DEFAULT_IDLE);
  world.loop.Run();
  EXPECT_THAT(ran, ElementsAre("inner ended", "outer goes on"));
  EXPECT_FALSE(world.loop.Iterate(false));
}

TEST(GlibLoop, RunsWhatOtherThreadsPostOnItsOwnThreadInOrder) {
  CGlibWorld world;
  constexpr int kThreads = 4;
  constexpr int kEach = 200;
  std::vector<std::vector<int>> ran(kThreads);
  const auto loop_thread = std::this_thread::get_id();
  int left = kThreads * kEach;
  bool idle_ran = false;
  world.loop.timeout_add(kNever, [] { return false; });
  std::vector<std::thread> threads;
  threads.reserve(kThreads);
  for (int thread = 0; thread < kThreads; ++thread) {
    threads.emplace_back([&, thread] {
      for (int i = 0; i < kEach; ++i) {
        world.loop.PostFromThread([&, thread, i] {
          EXPECT_EQ(std::this_thread::get_id(), loop_thread);
          ran[static_cast<size_t>(thread)].push_back(i);
          if (--left == 0) {
            world.loop.Quit();
          }
        });
      }
    });
  }
  world.loop.Run();  // asleep until something is posted
  for (auto& thread : threads) {
    thread.join();
  }
  for (const auto& of_thread : ran) {
    EXPECT_EQ(of_thread.size(), static_cast<size_t>(kEach));
    EXPECT_TRUE(std::is_sorted(of_thread.begin(), of_thread.end()));
  }
  EXPECT_EQ(world.loop.PendingCount(), 1U);

  // Ahead of idle calls; what it throws is reported.
  world.loop.idle_add(
      [&] {
        idle_ran = true;
        return false;
      },
      velk::PRIORITY_HIGH_IDLE);
  testing::internal::CaptureStdout();
  world.loop.PostFromThread([&] {
    EXPECT_FALSE(idle_ran);
    throw std::runtime_error("a bad scan");
  });
  while (!idle_ran) {
    world.loop.Iterate(true);
  }
  EXPECT_THAT(testing::internal::GetCapturedStdout(), testing::HasSubstr("a bad scan"));
}

TEST(GlibLoop, LeavesNothingBehindEvenWhenItEndsInACallback) {
  const CGlibWorld::CContext own;
  const auto held = std::make_shared<int>();
  auto loop = std::make_unique<CGlibMainLoop>(own.context);
  const auto add_all = [&] {
    loop->timeout_add(0, [held] { return true; });
    loop->idle_add([held] { return true; }, velk::PRIORITY_LOW_IDLE);
    loop->PostFromThread([held] {});
  };
  add_all();
  loop.reset();
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_FALSE(g_main_context_pending(own.context));

  loop = std::make_unique<CGlibMainLoop>(own.context);
  bool ended = false;
  loop->idle_add(
      [&, held] {
        loop.reset();
        ended = true;
        return true;
      },
      velk::PRIORITY_HIGH_IDLE);
  loop->idle_add([held] { return true; }, velk::PRIORITY_LOW_IDLE);
  while (!ended) {
    g_main_context_iteration(own.context, TRUE);
  }
  EXPECT_EQ(held.use_count(), 1);
  EXPECT_FALSE(g_main_context_pending(own.context));

  // Without a context it is the default one, which an editor runs already.
  const CGlibMainLoop shared;
  EXPECT_EQ(shared.Context(), g_main_context_default());
}

}  // namespace
}  // namespace pysource::standalone
