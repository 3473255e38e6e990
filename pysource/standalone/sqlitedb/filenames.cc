#include "pysource/standalone/sqlitedb/filenames.h"

namespace pysource::standalone::sqlitedb {
namespace {

constexpr TextView kInWorkspace = "w:";
constexpr TextView kByUrl = "u:";

}  // namespace

CFileNames::CFileNames(const std::string& workspace_root) {
  if (!workspace_root.empty()) {
    _fRoot = UrlForPath(workspace_root);
    if (_fRoot.back() == '/') {
      _fRoot.pop_back();
    }
  }
}

Text CFileNames::NameOf(const CResourceLocation& location) const {
  const TextView url = location.fUrl;
  if (!_fRoot.empty() && url.starts_with(_fRoot)) {
    if (url.size() == _fRoot.size()) {
      return Text(kInWorkspace);
    }
    // The one URL "root/" is not the root's own, and so is not taken for it.
    if (url[_fRoot.size()] == '/' && url.size() > _fRoot.size() + 1) {
      return Text(kInWorkspace).append(url.substr(_fRoot.size() + 1));
    }
  }
  return Text(kByUrl).append(url);
}

std::optional<Text> CFileNames::UrlOf(TextView name) const {
  if (name.starts_with(kByUrl)) {
    return Text(name.substr(kByUrl.size()));
  }
  if (!name.starts_with(kInWorkspace) || _fRoot.empty()) {
    return std::nullopt;
  }
  const TextView rest = name.substr(kInWorkspace.size());
  return rest.empty() ? _fRoot : Text(_fRoot).append("/").append(rest);
}

}  // namespace pysource::standalone::sqlitedb
