// Names followed across the files of a small tree, and answers that go when what they rest on does.
#include "pysource/standalone/engine/nameresolver.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <filesystem>
#include <optional>
#include <string>
#include <vector>

#include "tests/engine/enginefixture.h"

namespace pysource::standalone {
namespace {

using ::testing::ElementsAre;
using ::testing::IsEmpty;

class NameResolverTest : public CEngineTest {
 protected:
  NameResolverTest() {
    Write("util.py", "import base\nclass Helper(base.Root):\n  def help(self): return self\n");
    Write("base.py",
          "from util import Helper\nclass Root:\n  def close(self):\n    self.closed = True\n"
          "class Base(Root):\n  size = color = 1\n  def show(self): pass\n");
    std::filesystem::create_directory(Path("pkg"));
    Write("pkg/__init__.py", "from .inner import deep as made\n");
    Write("pkg/inner.py", "def deep(): pass\n");
    _fApp = Write("app.py",
                  "from base import *\n"                // 1
                  "import base as b, pkg\n"             // 2
                  "from base import Base as B2\n"       // 3
                  "class Win(b.Base, metaclass=M):\n"   // 4
                  "  color = 'red'\n"                   // 5
                  "  def __init__(self, t: B2):\n"      // 6
                  "    self.title = t\n"                // 7
                  "    self.helper = b.Helper()\n"      // 8
                  "  def go(self):\n"                   // 9
                  "    w = Win()\n"                     // 10
                  "    def inner(): return color, w\n"  // 11
                  "x = Win()\n"                         // 12
                  "y = x\n"                             // 13
                  "import nowhere\n"                    // 14
                  "loop = pool\npool = loop\n"
                  "class Own(Own): pass\n"                     // 17
                  "part = data[:n], data[:G]\n"                // 18
                  "def cut():\n  piece = data[:n]; piece\n"    // 20
                  "  def sub():\n    nonlocal piece; piece\n"  // 22
                  "def far():\n  import pkg.inner\n");
    _fResolver.emplace(*fEngine);
  }
  ~NameResolverTest() override { _fResolver.reset(); }

  // "file:line scope.name" of each definition.
  std::vector<std::string> Found(const char* scope, const char* name) {
    const auto answer = _fResolver->Resolve({_fApp, scope, name}, [this] {
      fLoop.RunIdle();
      return true;
    });
    std::vector<std::string> found;
    for (const CNameDefinition& each : answer->definitions) {
      found.push_back(PathForLocation(each.loc)->substr(fRoot.size() + 1) + ":" +
                      std::to_string(each.line.value_or(0)) + " " + each.scope +
                      (each.inst ? ":" : ".") + each.name);
    }
    _fLost = answer->lost;
    return found;
  }

  Loc _fApp;
  std::optional<CNameResolver> _fResolver;
  std::vector<Text> _fLost;
};

TEST_F(NameResolverTest, FollowsImportsBasesAndInstances) {
  const struct {
    const char* scope;
    const char* name;
    const char* found;
  } kCases[] = {
      {"", "Win", "app.py:4 .Win"},
      {"", "B2", "base.py:5 .Base"},
      {"", "Root", "base.py:2 .Root"},      // with *
      {"", "Helper", "util.py:2 .Helper"},  // with *, from where it was imported to
      {"", "b", "base.py:1 ."},
      {"", "pkg.made", "pkg/inner.py:1 .deep"},
      {"", "pkg.inner.deep", "pkg/inner.py:1 .deep"},
      {"far", "pkg.made", "pkg/inner.py:1 .deep"},  // binds the package, not the module in it
      {"", "y.color", "app.py:5 Win.color"},        // before that of its base
      {"", "y.size", "base.py:6 Base.size"},
      {"", "y.close", "base.py:3 Root.close"},
      {"Win.go", "self.closed", "base.py:4 Root:closed"},
      {"Win.go", "self.title.show", "base.py:7 Base.show"},
      {"Win.go", "self.helper.help", "util.py:3 Helper.help"},
      {"Win.go.inner", "w.helper.close", "base.py:3 Root.close"},
      {"Win", "color", "app.py:5 Win.color"},
      {"cut", "piece", "app.py:20 cut.piece"},  // bound to what holds ":n", and no nonlocal
      {"cut.sub", "piece", "app.py:20 cut.piece"},
      {"cut", "part", "app.py:18 .part"},
  };
  for (const auto& test : kCases) {
    EXPECT_THAT(Found(test.scope, test.name), ElementsAre(test.found))
        << test.scope << " " << test.name;
  }
}

TEST_F(NameResolverTest, SaysWhereTheTrackWasLost) {
  const struct {
    const char* scope;
    const char* name;
    const char* lost;
  } kCases[] = {
      {"", "nowhere", "module nowhere was not found from"},
      {"", "nothing", "nothing is not bound in"},
      {"Win.go.inner", "color", "color is not bound in"},  // not seen in a function of the class
      {"", "x.nothing", "attribute nothing was not found"},
      {"", "loop", "leads back to itself"},
      {"", "Own.nothing", "attribute nothing was not found"},
  };
  for (const auto& test : kCases) {
    EXPECT_THAT(Found(test.scope, test.name), IsEmpty()) << test.name;
    EXPECT_THAT(_fLost, ::testing::Contains(::testing::HasSubstr(test.lost))) << test.name;
  }
}

TEST_F(NameResolverTest, AnAnswerGoesWhenAScopeThatItRestsOnChangesAndOnlyThen) {
  const CNameQuestion close{_fApp, "", "y.close"};
  const CNameQuestion made{_fApp, "", "pkg.made"};
  EXPECT_THAT(Found("", "y.close"), ElementsAre("base.py:3 Root.close"));
  EXPECT_THAT(Found("", "pkg.made"), ElementsAre("pkg/inner.py:1 .deep"));
  ASSERT_TRUE(_fResolver->Holds(close) && _fResolver->Holds(made));
  const uint64_t hits = _fResolver->Hits();
  Found("", "y.close");
  EXPECT_EQ(_fResolver->Hits(), hits + 1);

  // A base of the class gets it first.
  Write("base.py",
        "from util import Helper\nclass Root:\n  def close(self): pass\n"
        "class Base(Root):\n  def close(self): pass\n");
  fEngine->Files().CheckWatchedFiles();
  Settle();
  EXPECT_FALSE(_fResolver->Holds(close));
  EXPECT_TRUE(_fResolver->Holds(made)) << "nothing that it rests on has changed";
  EXPECT_THAT(Found("", "y.close"), ElementsAre("base.py:5 Base.close"));
}

}  // namespace
}  // namespace pysource::standalone
