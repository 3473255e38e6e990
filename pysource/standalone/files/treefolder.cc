#include "pysource/standalone/files/treefolder.h"

#include <dirent.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <memory>
#include <utility>

namespace pysource::standalone {
namespace {

constexpr std::array<std::string_view, 5> kIgnoredFolders = {
    "node_modules", "site-packages", "dist-packages", "__pypackages__", "__pycache__"};

void AddEntry(CTreeFolder& folder, int dir_fd, const dirent& entry) {
  // Most entries of most folders need no look at the file system.
  if (entry.d_type == DT_DIR) {
    folder.folders.push_back({.name = entry.d_name});
    return;
  }
  const bool is_python = IsPythonName(entry.d_name);
  if (entry.d_type == DT_REG ? !is_python : entry.d_type != DT_LNK && entry.d_type != DT_UNKNOWN) {
    return;
  }
  CTreeFolder::Entry found{.name = entry.d_name, .is_link = entry.d_type == DT_LNK};
  if (fstatat(dir_fd, entry.d_name, &found.status, 0) != 0) {
    // One that is gone by now, or a link to nowhere, is no file.
    if (errno != ENOENT && errno != ENOTDIR && errno != ELOOP) {
      folder.error = errno;
    }
  } else if (S_ISDIR(found.status.st_mode)) {
    folder.folders.push_back(std::move(found));
  } else if (is_python && S_ISREG(found.status.st_mode)) {
    folder.files.push_back(std::move(found));
  }
}

}  // namespace

bool IsPythonName(std::string_view name) { return name.ends_with(".py") || name.ends_with(".pyi"); }

bool IsPassedOver(std::string_view name) {
  return name.starts_with('.') ||
         std::find(kIgnoredFolders.begin(), kIgnoredFolders.end(), name) != kIgnoredFolders.end();
}

bool LeavesFolderOut(std::string_view name) {
  return name == "pyvenv.cfg" || name == "CACHEDIR.TAG";
}

CTreeFolder ReadTreeFolder(const std::string& path, bool is_named) {
  CTreeFolder folder;
  const std::unique_ptr<DIR, int (*)(DIR*)> dir(opendir(path.c_str()), closedir);
  if (dir == nullptr || fstat(dirfd(dir.get()), &folder.status) != 0) {
    folder.error = errno;
    return folder;
  }
  errno = 0;
  while (const dirent* const entry = readdir(dir.get())) {
    if (!is_named && LeavesFolderOut(entry->d_name)) {
      folder.is_left_out = true;
      folder.files.clear();
      folder.folders.clear();
      return folder;
    }
    if (!IsPassedOver(entry->d_name)) {
      AddEntry(folder, dirfd(dir.get()), *entry);
    }
    errno = 0;
  }
  if (errno != 0) {
    folder.error = errno;
  }
  return folder;
}

std::string PathInFolder(const std::string& folder, std::string_view name) {
  std::string path;
  path.reserve(folder.size() + 1 + name.size());
  path = folder;
  if (!path.ends_with('/')) {
    path += '/';
  }
  return path.append(name);
}

}  // namespace pysource::standalone
