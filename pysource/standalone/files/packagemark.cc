#include "pysource/standalone/files/packagemark.h"

#include <sys/stat.h>

namespace pysource::standalone {
namespace {

constexpr std::string_view kMark = "/__init__.*";

bool IsFile(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 && S_ISREG(status.st_mode);
}

}  // namespace

bool IsPackage(const std::string& folder) {
  return IsFile(folder + "/__init__.py") || IsFile(folder + "/__init__.pyi");
}

std::string PackageMark(const std::string& folder) {
  return std::string(folder == "/" ? "" : folder).append(kMark);
}

std::optional<std::string> FolderOfPackageMark(std::string_view path) {
  if (!path.ends_with(kMark)) {
    return std::nullopt;
  }
  path.remove_suffix(kMark.size());
  return std::string(path.empty() ? "/" : path);
}

bool MakesPackage(std::string_view path) {
  return path.ends_with("/__init__.py") || path.ends_with("/__init__.pyi");
}

}  // namespace pysource::standalone
