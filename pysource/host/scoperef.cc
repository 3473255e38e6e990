#include "pysource/host/scoperef.h"

#include "pysource/host/repr.h"

namespace pysource {

Text CScopeRef::Repr() const { return FormatBraces("({}, {})", {loc, pysource::Repr(scope)}); }

Text CNeedsScan::Repr() const {
  return FormatBraces("({}, {}, {})",
                      {scanned_loc, pysource::Repr(scanned_scope), pysource::Repr(scan_name)});
}

}  // namespace pysource
