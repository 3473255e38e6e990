// One folder of a tree of Python files, read: which of its files and folders belong to the tree.
//
// The rules have their one home here, for the search of a tree and for the watch over it:
//
//   taken are files that end in .py or .pyi, and folders;
//   passed over are hidden files and folders (.git, .venv, .mypy_cache, the lock files of editors),
//   folders of other people's code (node_modules, site-packages, dist-packages, __pypackages__),
//   __pycache__, and what is neither a file nor a folder;
//   a folder that holds a pyvenv.cfg (a virtual environment) or a CACHEDIR.TAG is left out whole.
#pragma once

#include <sys/stat.h>

#include <string>
#include <string_view>
#include <vector>

namespace pysource::standalone {

bool IsPythonName(std::string_view name);
// Whether a file or folder of this name below a named folder is passed over, whatever it holds.
bool IsPassedOver(std::string_view name);
// Whether a file of this name takes its folder out of the tree.
bool LeavesFolderOut(std::string_view name);

struct CTreeFolder {
  struct Entry {
    std::string name;
    bool is_link = false;
    struct stat status = {};  // of a file, or of what a link leads to; not of a plain folder
  };
  std::vector<Entry> files;
  std::vector<Entry> folders;
  struct stat status = {};  // of the folder itself; of no meaning when it could not be opened
  bool is_left_out = false;
  // Why the folder, or something in it, could not be read; 0 when all was. An errno.
  int error = 0;
};

// A folder that the user has named is never left out.
CTreeFolder ReadTreeFolder(const std::string& path, bool is_named);

// The path of an entry of the folder.
std::string PathInFolder(const std::string& folder, std::string_view name);

}  // namespace pysource::standalone
