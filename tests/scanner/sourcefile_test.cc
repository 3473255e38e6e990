// Files as they lie on disk: encodings, disk times, and where imports lead.

#include "pysource/standalone/scanner/sourcefile.h"

#include <fcntl.h>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <sys/stat.h>
#include <unistd.h>

#include <array>
#include <cmath>
#include <filesystem>
#include <fstream>
#include <map>
#include <set>
#include <string>

#include "pysource/host/errors.h"
#include "pysource/standalone/files/contenttime.h"
#include "pysource/standalone/files/disktimes.h"
#include "pysource/standalone/scanner/importresolver.h"
#include "tests/fakes/random.h"

namespace pysource::standalone {
namespace {

namespace fs = std::filesystem;

class SourceFileTest : public testing::Test {
 protected:
  SourceFileTest() {
    std::string pattern = (fs::temp_directory_path() / "scopeinfo-XXXXXX").string();
    _fFolder = mkdtemp(pattern.data());
  }
  ~SourceFileTest() override { fs::remove_all(_fFolder); }

  std::string Path(const std::string& name) const { return _fFolder + "/" + name; }
  std::string Write(const std::string& name, const std::string& content = {}) const {
    fs::create_directories(fs::path(Path(name)).parent_path());
    std::ofstream(Path(name), std::ios::binary) << content;
    return Path(name);
  }

  std::string _fFolder;
};

TEST_F(SourceFileTest, DecodesAsPythonDoes) {
  const std::string e8 = "\xC3\xA9";
  struct CCase {
    const char* why;
    std::string bytes;
    std::string text;
  };
  const CCase cases[] = {
      {"no declaration is UTF-8", "x = '" + e8 + "'\n", "x = '" + e8 + "'\n"},
      {"what is no UTF-8 stays for the scanner to cope with", "x = '\xE9'", "x = '\xE9'"},
      {"a mark is taken off", "\xEF\xBB\xBFx", "x"},
      {"latin-1, in any spelling", "# -*- coding: Latin_1 -*-\n\xE9",
       "# -*- coding: Latin_1 -*-\n" + e8},
      {"in the second line, after a blank one", "\n#vim: fileencoding=iso-8859-15\n\xA4",
       "\n#vim: fileencoding=iso-8859-15\n\xE2\x82\xAC"},
      {"by the C library", "# coding=cp1252\r\n\x80", "# coding=cp1252\r\n\xE2\x82\xAC"},
      {"of several bytes", "# coding: euc-jp\n\xA4\xA2", "# coding: euc-jp\n\xE3\x81\x82"},
      {"with the line ends that Emacs names", "# coding: iso-latin-1-unix\n\xE9",
       "# coding: iso-latin-1-unix\n\xC3\xA9"},
      {"by Python's own name", "# coding: iso2022_jp\n\x1B$B$\"\x1B(B",
       "# coding: iso2022_jp\n\xE3\x81\x82"},
      {"a declaration behind code is none", "x = 1\n# coding: latin-1\n" + e8,
       "x = 1\n# coding: latin-1\n" + e8},
      {"nor is one in the third line", "#\n#\n# coding: latin-1\n" + e8,
       "#\n#\n# coding: latin-1\n" + e8},
  };
  for (const CCase& c : cases) {
    EXPECT_EQ(ReadSourceFile(Write("t.py", c.bytes)).source, c.text) << c.why;
  }
}

TEST_F(SourceFileTest, WhatCannotBeReadNamesTheFile) {
  fs::create_directory(Path("folder"));
  ASSERT_EQ(mkfifo(Path("pipe").c_str(), 0600), 0);
  const std::string cases[][2] = {
      {Path("missing.py"), "cannot be opened"},
      {Path("folder"), "is a folder"},
      {Path("pipe"), "not a plain file"},
      {Write("u.py", "# coding: no-such-code\n"), "unknown encoding: no-such-code"},
      {Write("w.py", "# coding: ascii\n\xE9"), "not text in the encoding"},
      {Write("m.py", "\xEF\xBB\xBF# coding: latin-1\n"), "the mark of UTF-8"},
      {Write("x.py", "# coding: utf-16\n"), "cannot be in: utf-16"},
  };
  for (const auto& [path, why] : cases) {
    try {
      ReadSourceFile(path);
      ADD_FAILURE() << path;
    } catch (const CValueError& error) {
      EXPECT_THAT(error.what(), testing::AllOf(testing::StartsWith(path), testing::HasSubstr(why)));
    }
  }
}

// Contents that come and go within one tick of the clock, of one size, under restored dates and by
// other files: what is remembered gives the same as reading.
TEST_F(SourceFileTest, TheDiskTimeIsThatOfTheContent) {
  fakes::CRandom random;
  CLocationCache cache;
  CDiskTimes times;
  const std::string path = Path("t.py");
  const Loc loc = cache.GetLocationForPath(path);
  std::map<std::string, DiskTime> time_of{{"", 0}, {"x", 0}, {"y", 0}, {"-", 0.0}};
  for (auto& [text, time] : time_of) {
    time = text == "-" ? GetFileDiskTime(path) : ReadSourceFile(Write("t.py", text)).disk_mtime;
    EXPECT_TRUE(text == "-" ? time == 0.0 : time > 1.0 && std::isfinite(time)) << text;
    fs::remove(path);
  }
  EXPECT_EQ(std::set({time_of[""], time_of["x"], time_of["y"], 0.0}).size(), 4U);
  std::string text = "-";
  for (int step = 0; step < 2000; ++step) {
    const timespec date[2] = {{1, 0}, {static_cast<time_t>(random.Below(2)), 0}};
    switch (random.Below(4)) {
      case 0:
        fs::remove(path);
        text = "-";
        break;
      case 1:
        text = random.Of(std::array{"", "x", "y"});
        fs::rename(Write("new", text), path);
        break;
      case 2:
        text = random.Of(std::array{"x", "y"});
        Write("t.py", text);
        break;
      default:
        utimensat(AT_FDCWD, path.c_str(), date, 0);
    }
    ASSERT_EQ(times.TimeOf(loc), time_of[text]) << step;
    ASSERT_EQ(GetFileDiskTime(path), time_of[text]) << step;
  }
  EXPECT_EQ(GetFileDiskTime(Path("t.py/x.py")), 0.0);
  EXPECT_EQ(GetFileDiskTime(_fFolder), 0.0) << "no file is there";
}

TEST_F(SourceFileTest, ImportsResolve) {
  for (const char* const name : {"top/pkg/__init__.py", "top/pkg/a.py", "top/pkg/sub/__init__.pyi",
                                 "top/pkg/sub/b.py", "top/pkg/a/__init__.py", "top/pkg/stub.pyi",
                                 "top/other.py", "root/lib.py", "root/other.py", "root/ns/m.py"}) {
    Write(name);
  }
  CLocationCache cache;
  CDiskTimes times;
  CFileImportResolver resolver(cache, times, {Path("root")});
  const Loc from = cache.GetLocationForPath(Path("top/pkg/sub/b.py"));
  const auto resolve = [&](TextView module) {
    const Loc found = resolver.Resolve(from, module);
    return found ? PathForLocation(found)->substr(_fFolder.size() + 1) : "-";
  };
  const std::pair<const char*, const char*> cases[] = {
      {".b", "top/pkg/sub/b.py"},
      {".", "top/pkg/sub/__init__.pyi"},
      {"..", "top/pkg/__init__.py"},
      {"..a", "top/pkg/a.py"},  // before a/__init__.py
      {"..stub", "top/pkg/stub.pyi"},
      {"...other", "top/other.py"},
      {"lib", "root/lib.py"},
      {"other", "root/other.py"},  // roots first
      {"pkg.a", "top/pkg/a.py"},
      {"pkg", "top/pkg/__init__.py"},
      {"ns.m", "root/ns/m.py"},
      {"ns", "-"},
      {"a", "-"},
      {"", "-"},
      {"lib.", "-"},
      {"..................x", "-"},
      {"/lib", "-"},
      {"pkg./a", "-"},
  };
  for (const auto& [module, path] : cases) {
    EXPECT_EQ(resolve(module), path) << module;
  }
  // Answers are kept until they are cleared.
  Write("root/a.py");
  EXPECT_EQ(resolve("a"), "-");
  resolver.Clear();
  EXPECT_EQ(resolve("a"), "root/a.py");
}

}  // namespace
}  // namespace pysource::standalone
