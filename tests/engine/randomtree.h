// A folder of Python files in which packages, modules, stubs and folders come, change and go at
// random: what the bulk index and the live one have to follow.
#pragma once

#include <fcntl.h>
#include <sys/stat.h>

#include <array>
#include <filesystem>
#include <fstream>
#include <string>
#include <vector>

#include "tests/fakes/random.h"

namespace pysource::standalone {

class CRandomTree {
 public:
  CRandomTree(std::string folder, fakes::CRandom& random)
      : _fFolder(std::move(folder) + "/"), _fRandom(random) {
    for (int i = 0; i < 6; ++i) {
      Write(SomeFile());
    }
  }

  // One change.
  void Step() {
    namespace fs = std::filesystem;
    const std::string file = SomeFile();
    std::error_code ignored;
    switch (_fRandom.Below(10)) {
      default:
        Write(file);
        break;
      case 0:
      case 1:
        fs::remove(_fFolder + file, ignored);
        break;
      case 2:
        fs::remove_all(_fFolder + SomeFolder(), ignored);
        break;
      case 3:
        fs::rename(_fFolder + SomeFolder(), _fFolder + SomeFolder(), ignored);
        break;
      case 4:
        TouchAll();
        break;
    }
  }

  // Another date for every file, for some that of the day when time began.
  void TouchAll() {
    for (const auto& entry : std::filesystem::recursive_directory_iterator(_fFolder)) {
      Date(entry.path());
    }
  }

 private:
  void Date(const std::string& path) {
    const time_t second = _fRandom.Of(std::array<time_t, 4>{0, 1, 1700000000, 4000000000});
    const timespec times[2] = {{second, 0}, {second, 0}};
    utimensat(AT_FDCWD, path.c_str(), times, 0);
  }
  std::string SomeFolder() { return _fRandom.Of(std::array{"p", "p/q", "r"}); }
  std::string SomeFile() {
    return std::string(_fRandom.Of(std::array{"", "p/", "p/", "p/q/"})) +
           _fRandom.Of(std::array{"m0", "m1", "__init__"}) + (_fRandom.OneIn(4) ? ".pyi" : ".py");
  }
  // Most sources are of few sizes.
  void Write(const std::string& file) {
    std::string source = "class C:\n  def f(self): self.a" + _fRandom.Text("ab", 1) + " = 1\n";
    for (size_t k = _fRandom.Below(4); k > 0; --k) {
      const std::string module = _fRandom.Of(
          std::array{"m0", "m1", "p", "p.m0", "p.q.m1", "q.m0", "r.m0", ".m0", "..m1", "."});
      source += module.front() == '.' || _fRandom.OneIn(2)
                    ? "from " + module + " import *\n"
                    : "import " + module + " as x\nx.b" + _fRandom.Text("ab", 1) + " = 'x'\n";
    }
    const std::string path = _fFolder + file;
    std::error_code ignored;
    std::filesystem::create_directories(std::filesystem::path(path).parent_path(), ignored);
    std::ofstream(path) << source;
    Date(path);
  }

  const std::string _fFolder;
  fakes::CRandom& _fRandom;
};

}  // namespace pysource::standalone
