// The live index after random changes of its files, under its eyes and behind its back, against
// fresh scans of what is there.
#include "pysource/standalone/engine/liveindex.h"

#include <gtest/gtest.h>

#include <memory>
#include <string>
#include <vector>

#include "pysource/standalone/engine/indexcheck.h"
#include "tests/engine/enginefixture.h"
#include "tests/engine/randomtree.h"

namespace pysource::standalone {
namespace {

constexpr unsigned kMostWaitMs = 20000;
const std::string kTree = "tree/";

class CLiveWorld : public CEngineWorld {
 public:
  CLiveWorld() {
    velk::SetMainLoop(&fGlibLoop);
    std::filesystem::create_directories(Path(kTree));
  }
  ~CLiveWorld() {
    fLive.reset();
    EXPECT_EQ(fGlibLoop.PendingCount(), 0U);
  }

  void StartLive() {
    fLive.reset();
    CEngineOptions engine = Options(2);
    engine.import_roots = {};
    fLive = std::make_unique<CLiveIndex>(
        fGlibLoop, engine,
        CLiveIndexOptions{
            .paths = {Path(kTree)},
            .look_at_database_ms = 10,
            .on_ready = [this](size_t scanned, size_t) { fReady = true, fScanned += scanned; },
            .on_scanned = [this](Loc loc) { fSawLast |= loc->fUrl.ends_with("/last.py"); },
            .on_trouble = [](const CPathNote& note) { ADD_FAILURE() << note.path << note.text; }});
    fLive->Start();
  }
  // Waits until all changes up to now are followed: a file that is written last is told of last.
  void Settle() {
    Write("last.py", "x = " + std::to_string(fSeconds) + "\n");
    fSawLast = fReady = false;
    bool is_late = false;
    const auto timer = fGlibLoop.timeout_add(kMostWaitMs, [&] { return is_late = true, false; });
    while (!(fSawLast && fReady) && !is_late) {
      fGlibLoop.Iterate(true);
      fReady &= fSawLast;
    }
    fGlibLoop.timeout_remove(timer);
    ASSERT_FALSE(is_late);
  }
  void Write(const std::string& name, const std::string& source) {
    Put(kTree + name, source, ++fSeconds);
  }

  void CheckAll() {
    CLocationCache& locations = fLive->Engine().Locations();
    const CFoundFiles found = FindPythonFiles({Path(kTree)}, locations);
    const CCheckReport report = CheckIndex(fLive->Engine().Database(), locations,
                                           CCheckRequest{found, 1, nullptr, nullptr});
    EXPECT_EQ(report.files, found.files.size());
    EXPECT_EQ(report.resting_on_changed, 0U);
    for (const auto* const notes : {&report.unreadable, &report.not_indexed, &report.differences}) {
      for (const CPathNote& note : *notes) {
        ADD_FAILURE() << note.path << ": " << note.text;
      }
    }
    size_t stored = 0;
    fLive->Engine().Database().VisitFiles([&](const CStoredFile&) { ++stored; });
    EXPECT_EQ(stored, found.files.size()) << "files that are gone are still stored";
    fLive->Engine().Cache().CheckInvariants();
  }

  CGlibMainLoop fGlibLoop;
  std::unique_ptr<CLiveIndex> fLive;
  bool fReady = false;
  bool fSawLast = false;
  size_t fScanned = 0;
  time_t fSeconds = 1700000000;
};

TEST(LiveIndex, FollowsWhateverHappens) {
  fakes::CRandom random;
  CLiveWorld world;
  CRandomTree tree(world.Path(kTree), random);
  world.StartLive();
  for (int round = 0; round < 25; ++round) {
    for (size_t step = random.Below(5); step > 0; --step) {
      tree.Step();
      // In the midst of whatever goes on.
      for (size_t i = random.OneIn(4) ? random.Below(20) : 0; i > 0; --i) {
        world.fGlibLoop.Iterate(random.OneIn(2));
      }
    }
    if (random.OneIn(6)) {
      world.StartLive();  // and so what came last happened behind its back
    }
    ASSERT_NO_FATAL_FAILURE(world.Settle());
    world.CheckAll();
    ASSERT_FALSE(testing::Test::HasFailure()) << "in round " << round;
  }
}

}  // namespace
}  // namespace pysource::standalone
