// The names that each scope of a text binds, as the scanner finds them: for scripts that scan many
// texts.
//
// Reads texts from the standard input, each as its size in bytes, a line feed, and the bytes; all
// are scanned by one scanner, in turn. Prints a line of JSON for each:
//
//   {"scopes": {"": ["C", "f"], "C": [], "C.m": ["self"]}, "errors": 1, "first_error_line": 7}

#include <iostream>
#include <nlohmann/json.hpp>
#include <string>

#include "pysource/host/location.h"
#include "pysource/standalone/scanner/importresolver.h"
#include "pysource/standalone/scanner/scanner.h"

namespace {

using namespace pysource;
using namespace pysource::standalone;

// Resolves nothing: what a module is does not matter here.
class CNoModules : public CImportResolver {
 public:
  Loc Resolve(Loc /*from*/, TextView /*module*/) const override { return nullptr; }
  DiskTime GetDiskTime(Loc /*loc*/) const override { return 0; }
};

nlohmann::json Describe(const CFileScan& scan) {
  nlohmann::json scopes = nlohmann::json::object();
  for (const CScanResult& scanned : scan.results) {
    if (scanned.scan_name != kNamesScan) {
      continue;
    }
    nlohmann::json& names = scopes[scanned.scanned_scope] = nlohmann::json::array();
    for (const auto& [name, ibytes] : scanned.infos.at(0)->type_equivs) {
      names.push_back(Text(name));
    }
  }
  return {{"scopes", scopes},
          {"errors", scan.error_count},
          {"first_error_line", scan.first_error_line}};
}

}  // namespace

int main() {
  std::ios::sync_with_stdio(false);
  CLocationCache locations;
  const CNoModules resolver;
  CScanner scanner(resolver);
  const Loc loc = locations.GetLocation("file:///text.py");
  std::string text;
  for (size_t size = 0; std::cin >> size;) {
    std::cin.get();
    text.resize(size);
    if (!std::cin.read(text.data(), static_cast<std::streamsize>(size))) {
      std::cerr << "a text is shorter than it says\n";
      return 1;
    }
    std::cout << Describe(scanner.Scan({loc, text, 1.0, true})).dump() << "\n";
  }
  return 0;
}
