// The text that the parser is given in one go: pieces of the source, one behind the other, and
// here and there a few characters that the source does not have. Nothing is copied. Whatever the
// parser says of the text is told in bytes and rows of the source again.
//
// So a statement can be parsed without the block in it ("class C:" and then "pass"), without a
// thousand comments between two lines, or with the bracket closed that it leaves open.
#pragma once

#include <cstddef>
#include <cstdint>
#include <deque>
#include <utility>
#include <vector>

#include "pysource/host/text.h"

namespace pysource::standalone {

class CServedText {
 public:
  // Forgets all pieces. `source` must stay as long as this is used.
  void Reset(BytesView source);

  // Appends source[begin, end), which begins in that row (from 0). What continues the last piece
  // becomes part of it. REQUIRES: `begin` is not before the end of the last piece.
  void Add(uint32_t begin, uint32_t end, uint32_t row);
  // Appends text that the source does not have; it must stay as long as this is used. Its place in
  // the source is the end of the last piece.
  void AddForeign(BytesView text);
  // The same for text that has to be kept.
  void AddForeign(Bytes text) { AddForeign(BytesView(_fKept.emplace_back(std::move(text)))); }
  void AddForeign(const char* text) { AddForeign(BytesView(text)); }

  uint32_t Size() const { return _fSize; }
  bool IsEmpty() const { return _fSize == 0; }
  // Equal texts from equal places of two sources, counted from the first piece, have equal hashes.
  uint64_t Hash() const;
  // Where the last piece ends in the source. REQUIRES: there is one.
  uint32_t SourceEnd() const {
    const CPiece& last = _fPieces.back();
    return last.is_foreign ? last.source : last.source + static_cast<uint32_t>(last.text.size());
  }

  // What there is from `at` on, up to the end of a piece; empty at the end.
  BytesView Read(uint32_t at) const;

  // The place in the source. Of several calls, those with ascending places are the fastest.
  struct CPlace {
    uint32_t at;
    uint32_t row;
    bool is_foreign;
  };
  CPlace PlaceOf(uint32_t at, uint32_t row) const;
  // The place behind the byte in front of `end`.
  uint32_t EndOf(uint32_t end) const;

 private:
  struct CPiece {
    uint32_t at;      // in this text
    uint32_t source;  // in the source; for foreign text the place where it stands
    uint32_t row;     // of the source
    uint32_t own_row;
    BytesView text;
    bool is_foreign;
  };

  // The piece that holds `at`.
  const CPiece& PieceAt(uint32_t at) const;
  void Append(CPiece piece);

  BytesView _fSource;
  std::vector<CPiece> _fPieces;
  std::deque<Bytes> _fKept;
  uint32_t _fSize = 0;
  mutable size_t _fLast = 0;  // the piece that was found last
};

}  // namespace pysource::standalone
