#include "pysource/standalone/engine/findfiles.h"

#include <sys/stat.h>

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <set>
#include <utility>

#include "pysource/standalone/files/treefolder.h"

namespace pysource::standalone {
namespace {

constexpr TextView kScheme = "file://";

class CFinder {
 public:
  CFinder(CFoundFiles& found, CLocationCache& loc_cache) : _fFound(found), _fLocCache(loc_cache) {}

  void AddNamed(const std::string& named) {
    const Loc loc = _fLocCache.GetLocationForPath(named);
    const std::string path = PathForLocation(loc).value_or(named);
    _fFound.paths.push_back(path);
    struct stat status;
    if (stat(path.c_str(), &status) != 0) {
      _fFound.bad.push_back({named, std::strerror(errno)});
    } else if (S_ISDIR(status.st_mode)) {
      _fFound.roots.push_back(path);
      ReadFolder(path, true);
    } else if (S_ISREG(status.st_mode)) {
      _fFound.files.push_back({path, loc, StampOf(status)});
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
  void ReadFolder(const std::string& path, bool is_named) {
    const CTreeFolder folder = ReadTreeFolder(path, is_named);
    if (folder.error != 0) {
      _fFound.errors.push_back({path, std::strerror(folder.error)});
    }
    if (folder.is_left_out ||
        !_fVisited.emplace(folder.status.st_dev, folder.status.st_ino).second) {
      return;
    }
    // The folder's path is absolute and normalised, so those of its files are, too.
    for (const CTreeFolder::Entry& file : folder.files) {
      std::string file_path = PathInFolder(path, file.name);
      _fUrl.replace(kScheme.size(), std::string::npos, file_path);
      _fFound.files.push_back(
          {std::move(file_path), _fLocCache.GetLocation(_fUrl), StampOf(file.status)});
    }
    for (const CTreeFolder::Entry& below : folder.folders) {
      (below.is_link ? _fLinkedFolders : _fFolders).push_back(PathInFolder(path, below.name));
    }
  }

  CFoundFiles& _fFound;
  CLocationCache& _fLocCache;
  Text _fUrl = Text(kScheme);  // of the last file
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
