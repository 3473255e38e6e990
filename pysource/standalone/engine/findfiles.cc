#include "pysource/standalone/engine/findfiles.h"

#include <dirent.h>
#include <sys/stat.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <memory>
#include <set>
#include <string_view>
#include <utility>

#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::standalone {
namespace {

constexpr std::array<std::string_view, 5> kIgnoredFolders = {
    "node_modules", "site-packages", "dist-packages", "__pypackages__", "__pycache__"};

std::string ErrorText() { return std::strerror(errno); }

bool IsPythonName(std::string_view name) { return name.ends_with(".py") || name.ends_with(".pyi"); }

class CFinder {
 public:
  CFinder(CFoundFiles& found, CLocationCache& loc_cache) : _fFound(found), _fLocCache(loc_cache) {}

  void AddNamed(const std::string& named) {
    const Loc loc = _fLocCache.GetLocationForPath(named);
    const std::string path = PathForLocation(loc).value_or(named);
    _fFound.paths.push_back(path);
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
      _fFound.bad.push_back({named, ErrorText()});
    } else if (S_ISDIR(status.st_mode)) {
      _fFound.roots.push_back(path);
      ReadFolder(path, true);
    } else if (S_ISREG(status.st_mode)) {
      _fFound.files.push_back({path, loc, DiskTimeOf(status)});
    } else {
      _fFound.bad.push_back({named, "neither a file nor a folder"});
    }
  }

  // Reads the folders that are waiting, linked ones after all others.
  void ReadWaiting() {
    while (!_fFolders.empty() || !_fLinkedFolders.empty()) {
      auto& waiting = _fFolders.empty() ? _fLinkedFolders : _fFolders;
      const std::string folder = std::move(waiting.back());
      waiting.pop_back();
      ReadFolder(folder, false);
    }
  }

 private:
  void ReadFolder(const std::string& folder, bool is_named) {
    const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(folder.c_str()), closedir);
    struct stat status;
    if (dir == nullptr || fstat(dirfd(dir.get()), &status) != 0) {
      _fFound.errors.push_back({folder, ErrorText()});
      return;
    }
    if (!_fVisited.emplace(status.st_dev, status.st_ino).second) {
      return;
    }
    // What is in the folder decides whether it counts, so nothing is taken before all is read.
    std::vector<CFoundFile> files;
    std::vector<std::string> folders;
    std::vector<std::string> linked_folders;
    const std::string prefix = folder.ends_with('/') ? folder : folder + '/';
    errno = 0;
    while (const dirent* entry = readdir(dir.get())) {
      const std::string_view name = entry->d_name;
      if (!is_named && (name == "pyvenv.cfg" || name == "CACHEDIR.TAG")) {
        return;
      }
      if (name.starts_with('.') || std::find(kIgnoredFolders.begin(), kIgnoredFolders.end(),
                                             name) != kIgnoredFolders.end()) {
        continue;
      }
      std::string path = prefix + entry->d_name;
      if (entry->d_type == DT_DIR) {
        folders.push_back(std::move(path));
        continue;
      }
      const bool is_python = IsPythonName(name);
      if (entry->d_type == DT_REG ? !is_python
                                  : entry->d_type != DT_LNK && entry->d_type != DT_UNKNOWN) {
        continue;
      }
      // One that is gone by now, or a link to nowhere, is no file.
      if (fstatat(dirfd(dir.get()), entry->d_name, &status, 0) == 0) {
        if (S_ISDIR(status.st_mode)) {
          (entry->d_type == DT_LNK ? linked_folders : folders).push_back(std::move(path));
        } else if (is_python && S_ISREG(status.st_mode)) {
          const Loc loc = _fLocCache.GetLocationForPath(path);
          files.push_back({std::move(path), loc, DiskTimeOf(status)});
        }
      }
      errno = 0;
    }
    if (errno != 0) {
      _fFound.errors.push_back({folder, ErrorText()});
    }
    std::move(files.begin(), files.end(), std::back_inserter(_fFound.files));
    std::move(folders.begin(), folders.end(), std::back_inserter(_fFolders));
    std::move(linked_folders.begin(), linked_folders.end(), std::back_inserter(_fLinkedFolders));
  }

  CFoundFiles& _fFound;
  CLocationCache& _fLocCache;
  std::vector<std::string> _fFolders;
  std::vector<std::string> _fLinkedFolders;
  std::set<std::pair<dev_t, ino_t>> _fVisited;
};

}  // namespace

CFoundFiles FindPythonFiles(const std::vector<std::string>& paths, CLocationCache& loc_cache) {
  CFoundFiles found;
  CFinder finder(found, loc_cache);
  for (const std::string& path : paths) {
    finder.AddNamed(path);
  }
  finder.ReadWaiting();
  const auto by_path = [](const CFoundFile& a, const CFoundFile& b) { return a.path < b.path; };
  std::sort(found.files.begin(), found.files.end(), by_path);
  const auto same = [](const CFoundFile& a, const CFoundFile& b) { return a.path == b.path; };
  found.files.erase(std::unique(found.files.begin(), found.files.end(), same), found.files.end());
  return found;
}

}  // namespace pysource::standalone
