// A location that stands for the question whether a folder is a package.
//
// Where an absolute import is looked for hangs on the folders that hold an __init__.py or .pyi, not
// on what is in these files. So a record that rests on such an import names the folder's mark among
// the scopes that it has seen, at kPackageTime or, where the folder was no package,
// kFileDoesNotExistMtime: it is stale when the one becomes the other, and not whenever somebody
// edits an __init__.py. The mark's path is the folder's, and a last part that no file has.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"

namespace pysource::standalone {

// The disk time of the mark of a package.
inline constexpr DiskTime kPackageTime = 2.0;

// Whether the folder holds an __init__.py or .pyi.
bool IsPackage(const std::string& folder);

std::string PackageMark(const std::string& folder);
// The folder of a mark; absent for any other path.
std::optional<std::string> FolderOfPackageMark(std::string_view path);
// Whether a file of that name decides whether its folder is a package.
bool MakesPackage(std::string_view path);

}  // namespace pysource::standalone
