// What texts were parsed to, for a buffer that is parsed again after each key.
//
// All but one of the texts that its source is cut into are those of the last time, further down by
// some bytes and rows at most. So nodes are kept by the text that they come from, with places
// counted from its beginning.
#pragma once

#include <cstddef>
#include <cstdint>
#include <unordered_map>
#include <vector>

#include "pysource/standalone/scanner/servedtext.h"
#include "pysource/standalone/scanner/syntaxnode.h"

namespace pysource::standalone {

class CParseCache {
 public:
  struct CErrors {
    size_t count = 0;
    size_t damage = 0;  // see CTextParser
    uint32_t first_row = 0;
  };

  // From here on another source is parsed. Texts that were not met in the last one are forgotten
  // when there are many.
  void BeginSource();
  // Appends the nodes of the text and says what errors there are; false when it is not known.
  bool Append(const CServedText& text, std::vector<CNode>& nodes, CErrors& errors);
  // Keeps nodes[first, end), which are those of the text.
  void Keep(const CServedText& text, const std::vector<CNode>& nodes, size_t first,
            const CErrors& errors);

 private:
  struct CEntry {
    std::vector<CNode> nodes;
    CErrors errors;
    uint64_t source;  // the last one that has the text
  };

  std::unordered_map<uint64_t, CEntry> _fEntries;  // by the hash of the text
  size_t _fNodeCount = 0;
  uint64_t _fSource = 0;
};

}  // namespace pysource::standalone
