// What may be tried to mend a place in the source.
#pragma once

#include <cstdint>
#include <vector>

#include "pysource/host/text.h"
#include "pysource/standalone/scanner/logicallines.h"

namespace pysource::standalone {

// One change of the text, within a physical line.
struct CTextEdit {
  size_t at;
  size_t erased;  // bytes
  Bytes inserted;
};

struct CMending {
  std::vector<CTextEdit> edits;  // changes that belong together, in the order of the text
  int cost = 0;                  // what it counts against it that it is rarely the right one
};

// Gathers mendings, the likelier ones first.
class CMendings {
 public:
  explicit CMendings(BytesView source) : _fSource(source) {}

  // To end the logical line behind one of its physical lines, or to close there what was opened
  // there.
  void CloseIn(const CLogicalLine& line, int cost = 0);
  // To open a bracket at the end of a physical line, for what is closed further on.
  void OpenIn(const CLogicalLine& line);
  // To begin a long string in one of the physical lines, for one that ends further on.
  void OpenStringIn(const CLogicalLine& line);
  // To take the line for the header of the block that follows.
  void MakeHeader(const CLogicalLine& line);
  // To take the lines from there on, as far as they are deeper, for a part of the block at `indent`.
  void Dedent(const CLogicalLine& first, uint32_t indent);
  // To put another word for the first one of a clause that belongs to nothing.
  void MakeStatement(const CLogicalLine& clause);
  // To give a header the block that does not follow it.
  void AddBlock(const CLogicalLine& header) { Add(header.text_end, 0, " pass"); }
  // To drop the bracket that closes nothing, alone or with its physical line.
  void DropBracket(const CLogicalLine& line);

  const std::vector<CMending>& All() const { return _fAll; }

 private:
  struct CRow {
    size_t begin;
    size_t end;  // without its line end
  };

  std::vector<CRow> RowsToTry(const CLogicalLine& line) const;
  void Add(size_t at, size_t erased, BytesView inserted, int cost = 0);
  void CloseRow(const CLogicalLine& line, const CRow& row, int cost);

  const BytesView _fSource;
  std::vector<CMending> _fAll;
};

}  // namespace pysource::standalone
