// The parser: text in, nodes out.
#pragma once

#include <atomic>
#include <cstddef>
#include <cstdint>
#include <vector>

#include "pysource/host/text.h"
#include "pysource/standalone/scanner/servedtext.h"
#include "pysource/standalone/scanner/syntaxnode.h"

struct TSParser;
struct TSTree;

namespace pysource::standalone {

// The mark of a block that foreign text stands for (servedtext.h): an empty one, at the place where
// the text is.
inline constexpr uint8_t kForeignBlock = 1;

// Wraps one parser of tree-sitter, used again for one text after the other. Nothing that was parsed
// before shows in what is parsed next.
class CTextParser {
 public:
  CTextParser();
  ~CTextParser();
  CTextParser(const CTextParser&) = delete;
  CTextParser& operator=(const CTextParser&) = delete;

  // A parse gives up as soon as this is not 0; null for never. It must outlive the parser.
  void SetStopFlag(const std::atomic<size_t>* stop);

  // Parses the text and appends its statements to `nodes`, in the order of the source and with the
  // places that they have in it. Foreign text gives no nodes, apart from the blocks that begin in
  // it. False when the parser was stopped or did not come to an end in good time; nothing is
  // appended then.
  bool Parse(const CServedText& text, std::vector<CNode>& nodes);

  // Of the last text: places that fit no rule, or where something is missing, and the row of the
  // first one, counted from 0.
  size_t ErrorCount() const { return _fErrorCount; }
  // How much of it the parser did not understand, in bytes, with some for each error. What it takes
  // to recover from errors is about in proportion to that.
  size_t Damage() const { return _fDamage; }
  uint32_t FirstErrorRow() const { return _fFirstErrorRow; }

 private:
  void Flatten(const TSTree* tree, const CServedText& text, std::vector<CNode>& nodes);
  void NoteError(uint32_t row);

  TSParser* const _fParser;
  const std::vector<Tag>& _fTags;  // by the parser's number of a symbol
  // Scratch: the nodes from the root to the present one; kNoNode for one that is left out.
  std::vector<NodeIndex> _fOpen;
  size_t _fErrorCount = 0;
  size_t _fDamage = 0;
  uint32_t _fFirstErrorRow = 0;
};

}  // namespace pysource::standalone
