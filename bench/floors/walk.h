// Walking over a tree to find Python files: the minimum of work for finding them.
#pragma once

#include <dirent.h>
#include <fcntl.h>
#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

namespace pysource::bench {

// Calls `visit` with the path and the status of each file that the project would index.
template <class Visit>
void WalkPythonFiles(const std::string& root, const Visit& visit) {
  std::vector<std::string> folders{root};
  while (!folders.empty()) {
    const std::string folder = std::move(folders.back());
    folders.pop_back();
    DIR* const dir = opendir(folder.c_str());
    if (dir == nullptr) {
      continue;
    }
    while (const dirent* const entry = readdir(dir)) {
      const std::string_view name = entry->d_name;
      if (name.starts_with('.') || name == "__pycache__" || name == "site-packages" ||
          name == "dist-packages") {
        continue;
      }
      if (entry->d_type == DT_DIR) {
        folders.push_back(folder + '/' + entry->d_name);
      } else if (name.ends_with(".py") || name.ends_with(".pyi")) {
        struct stat status {};
        if (fstatat(dirfd(dir), entry->d_name, &status, 0) == 0 && S_ISREG(status.st_mode)) {
          visit(folder + '/' + entry->d_name, status);
        }
      }
    }
    closedir(dir);
  }
}

}  // namespace pysource::bench
