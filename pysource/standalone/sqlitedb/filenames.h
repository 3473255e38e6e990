// How files are named in the database: relative to the workspace where they lie in it, so that a
// workspace can be moved, or opened under another path, and keeps what is known of it.
//
//   w:pkg/a.py              a file of the workspace; "w:" alone is its root
//   u:file:///usr/lib/x.py  any other location, by its URL
#pragma once

#include <optional>

#include "pysource/host/location.h"
#include "pysource/host/text.h"

namespace pysource::standalone::sqlitedb {

class CFileNames {
 public:
  // An empty root: every location is named by its URL.
  explicit CFileNames(const std::string& workspace_root);

  Text NameOf(const CResourceLocation& location) const;
  // Absent for a name that tells nothing here: one of the workspace when there is none, or a
  // damaged one.
  std::optional<Text> UrlOf(TextView name) const;

 private:
  Text _fRoot;  // the root's URL, without a "/" at its end; empty when there is none
};

}  // namespace pysource::standalone::sqlitedb
