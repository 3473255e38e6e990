#include "pysource/standalone/scanner/importresolver.h"

#include <sys/stat.h>

#include <optional>
#include <utility>

#include "pysource/host/hash.h"
#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/standalone/files/packagemark.h"

namespace pysource::standalone {
namespace {

bool IsFile(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

// The folder above `folder`; absent for the root and for a relative path of one part.
std::optional<std::string> FolderAbove(const std::string& folder) {
  const size_t slash = folder.rfind('/');
  if (slash == std::string::npos || folder.size() == 1) {
    return std::nullopt;
  }
  return slash == 0 ? "/" : folder.substr(0, slash);
}

// The files that the dotted `name` can be below `folder`, in the order in which they count; none
// for what is no module name.
std::vector<std::string> FilesOfModule(const std::string& folder, TextView name) {
  std::string path = folder;
  while (!name.empty()) {
    const size_t dot = name.find('.');
    const TextView part = name.substr(0, dot);
    // Source can say anything: a name that is no file name must not lead out of the folder.
    if (part.empty() || part.find('/') != TextView::npos || part.find('\0') != TextView::npos) {
      return {};
    }
    path += '/';
    path += part;
    name = dot == TextView::npos ? TextView() : name.substr(dot + 1);
    if (dot != TextView::npos && name.empty()) {
      return {};
    }
  }
  std::vector<std::string> files;
  for (const char* const extension : {".py", ".pyi"}) {
    // A module first, then a package; `folder` itself can only be a package.
    if (path.size() != folder.size()) {
      files.push_back(path + extension);
    }
    files.push_back(path + "/__init__" + extension);
  }
  return files;
}

}  // namespace

CImportResolver::~CImportResolver() = default;

std::vector<std::pair<Loc, DiskTime>> CImportResolver::RestsOn(Loc, TextView, Loc) const {
  return {};
}

CFileImportResolver::CFileImportResolver(CLocationCache& loc_cache, CDiskTimes& times,
                                         std::vector<std::string> roots)
    : _fLocCache(loc_cache),
      _fTimes(times),
      _fRoots(std::move(roots)),
      _fShards(std::make_unique<std::array<CShard, 16>>()) {}

CFileImportResolver::~CFileImportResolver() = default;

CFileImportResolver::CShard& CFileImportResolver::ShardOf(TextView text) const {
  return (*_fShards)[HashBytes(text) % _fShards->size()];
}

std::vector<std::string> CFileImportResolver::FoldersToLookIn(Loc from, TextView& module) const {
  const std::optional<std::string> path = PathForLocation(from);
  std::optional<std::string> folder = path ? FolderAbove(*path) : std::nullopt;
  if (!folder || module.empty()) {
    return {};
  }
  if (module.starts_with('.')) {
    module.remove_prefix(1);
    while (folder && module.starts_with('.')) {
      folder = FolderAbove(*folder);
      module.remove_prefix(1);
    }
    return folder ? std::vector{*folder} : std::vector<std::string>();
  }
  std::vector<std::string> folders = _fRoots;
  folders.push_back(PackageRoot(*folder));
  return folders;
}

Loc CFileImportResolver::Resolve(Loc from, TextView module) const {
  for (const std::string& folder : FoldersToLookIn(from, module)) {
    if (const Loc found = Find(folder, module)) {
      return found;
    }
  }
  return nullptr;
}

std::vector<std::pair<Loc, DiskTime>> CFileImportResolver::RestsOn(Loc from, TextView module,
                                                                   Loc found) const {
  std::vector<std::pair<Loc, DiskTime>> rests_on;
  const bool is_relative = module.starts_with('.');
  const std::vector<std::string> folders = FoldersToLookIn(from, module);
  for (size_t i = 0; i < folders.size(); ++i) {
    // The last place of an absolute import is the one that the packages decide on.
    if (!is_relative && i + 1 == folders.size()) {
      AddPackageMarks(from, folders[i], rests_on);
    }
    for (const std::string& file : FilesOfModule(folders[i], module)) {
      const Loc loc = _fLocCache.GetLocationForPath(file);
      if (loc == found) {
        return rests_on;
      }
      rests_on.emplace_back(loc, scopeinfo::kFileDoesNotExistMtime);
    }
  }
  return rests_on;
}

// From the folder of the file up to `root`, the first one that is no package.
void CFileImportResolver::AddPackageMarks(Loc from, const std::string& root,
                                          std::vector<std::pair<Loc, DiskTime>>& rests_on) const {
  std::optional<std::string> folder = FolderAbove(PathForLocation(from).value_or(""));
  for (; folder; folder = FolderAbove(*folder)) {
    const bool is_root = *folder == root;
    rests_on.emplace_back(_fLocCache.GetLocationForPath(PackageMark(*folder)),
                          is_root ? DiskTime{scopeinfo::kFileDoesNotExistMtime} : kPackageTime);
    if (is_root) {
      return;
    }
  }
}

DiskTime CFileImportResolver::GetDiskTime(Loc loc) const { return _fTimes.TimeOf(loc); }

void CFileImportResolver::SetRoots(std::vector<std::string> roots) {
  _fRoots = std::move(roots);
  Clear();
}

void CFileImportResolver::Clear() {
  ++_fClears;
  for (CShard& shard : *_fShards) {
    const std::lock_guard lock(shard.mutex);
    shard.modules.clear();
    shard.package_roots.clear();
  }
}

Loc CFileImportResolver::Find(const std::string& folder, TextView name) const {
  std::string question = folder;
  question += '\0';
  question += name;
  CShard& shard = ShardOf(question);
  const uint64_t clears = _fClears;
  {
    const std::lock_guard lock(shard.mutex);
    const auto known = shard.modules.find(question);
    if (known != shard.modules.end()) {
      return known->second;
    }
  }
  // Unlocked: two threads may look for the same file, and find the same.
  const Loc found = FindOnDisk(folder, name);
  const std::lock_guard lock(shard.mutex);
  if (clears == _fClears) {
    shard.modules.emplace(std::move(question), found);
  }
  return found;
}

Loc CFileImportResolver::FindOnDisk(const std::string& folder, TextView name) const {
  for (const std::string& file : FilesOfModule(folder, name)) {
    if (IsFile(file)) {
      return _fLocCache.GetLocationForPath(file);
    }
  }
  return nullptr;
}

std::string CFileImportResolver::PackageRoot(const std::string& folder) const {
  CShard& shard = ShardOf(folder);
  const uint64_t clears = _fClears;
  {
    const std::lock_guard lock(shard.mutex);
    const auto known = shard.package_roots.find(folder);
    if (known != shard.package_roots.end()) {
      return known->second;
    }
  }
  std::string root = folder;
  while (IsPackage(root)) {
    std::optional<std::string> above = FolderAbove(root);
    if (!above) {
      break;
    }
    root = std::move(*above);
  }
  const std::lock_guard lock(shard.mutex);
  if (clears == _fClears) {
    shard.package_roots.emplace(folder, root);
  }
  return root;
}

}  // namespace pysource::standalone
