// Finding the Python files of a tree.
//
// What is named is always taken: a file whatever its suffix, a folder whatever its name. Below a
// named folder, Python files are taken; files/treefolder.h says which folders are passed over.
//
// Symbolic links are followed, but every real folder is read once, under its own name if the tree
// has it, so that loops of links do no harm.
#pragma once

#include <string>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/standalone/files/filestamp.h"

namespace pysource::standalone {

struct CFoundFile {
  std::string path;  // absolute
  Loc loc;
  CFileStamp stamp;
};

// Something that is said of one file or folder.
struct CPathNote {
  std::string path;
  std::string text;
};

struct CFoundFiles {
  std::vector<CFoundFile> files;   // in order of their paths, each once
  std::vector<std::string> paths;  // what was named, absolute and normalised
  std::vector<std::string> roots;  // the folders among these
  std::vector<CPathNote> bad;      // what was named and is not there, or is no file or folder
  std::vector<CPathNote> errors;   // folders below that could not be read
};

CFoundFiles FindPythonFiles(const std::vector<std::string>& paths, CLocationCache& loc_cache);

}  // namespace pysource::standalone
