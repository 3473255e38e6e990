#include "pysource/standalone/scanner/importresolver.h"

namespace pysource::standalone {

CImportResolver::~CImportResolver() = default;

}  // namespace pysource::standalone
