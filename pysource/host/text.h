// The two kinds of character data in the system, and their views.
//
// Text is UTF-8: scope names, scan names, symbol names. Bytes are data: info bytes, encoded
// records. Both are std::string, so that one becomes the other without a copy; the alias shows the
// reader which is meant. The byte order of UTF-8 is the order of code points, so the plain
// comparison sorts text correctly.
#pragma once

#include <string>
#include <string_view>
#include <unordered_set>

#include "pysource/host/hash.h"

namespace pysource {

using Text = std::string;
using TextView = std::string_view;
using Bytes = std::string;
using BytesView = std::string_view;

// The hash of text. Also takes a view, so that a look-up makes no string. Not noexcept on purpose:
// GNU's library then stores the hash with each entry, instead of computing it for every entry that
// it passes.
struct TextHash {
  using is_transparent = void;
  size_t operator()(TextView text) const { return HashBytes(text); }
};

// A set of names whose order cannot be observed.
using TextSet = std::unordered_set<Text, TextHash, std::equal_to<>>;

}  // namespace pysource
