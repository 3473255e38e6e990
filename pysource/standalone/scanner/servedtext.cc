#include "pysource/standalone/scanner/servedtext.h"

#include <algorithm>

#include "pysource/host/hash.h"

namespace pysource::standalone {

void CServedText::Reset(BytesView source) {
  _fSource = source;
  _fPieces.clear();
  _fKept.clear();
  _fSize = 0;
  _fLast = 0;
}

void CServedText::Add(uint32_t begin, uint32_t end, uint32_t row) {
  if (begin == end) {
    return;
  }
  if (!_fPieces.empty()) {
    CPiece& last = _fPieces.back();
    if (!last.is_foreign && last.source + last.text.size() == begin) {
      last.text = _fSource.substr(last.source, end - last.source);
      _fSize = last.at + static_cast<uint32_t>(last.text.size());
      return;
    }
  }
  Append({0, begin, row, 0, _fSource.substr(begin, end - begin), false});
}

void CServedText::AddForeign(BytesView text) {
  if (text.empty()) {
    return;
  }
  CPiece piece{0, 0, 0, 0, text, true};
  if (!_fPieces.empty()) {
    const CPiece& last = _fPieces.back();
    piece.source = last.source;
    piece.row = last.row;
    if (!last.is_foreign) {
      piece.source += static_cast<uint32_t>(last.text.size());
      piece.row += static_cast<uint32_t>(std::count(last.text.begin(), last.text.end(), '\n'));
    }
  }
  Append(piece);
}

void CServedText::Append(CPiece piece) {
  piece.at = _fSize;
  if (!_fPieces.empty()) {
    const CPiece& last = _fPieces.back();
    piece.own_row =
        last.own_row + static_cast<uint32_t>(std::count(last.text.begin(), last.text.end(), '\n'));
  }
  _fSize += static_cast<uint32_t>(piece.text.size());
  _fPieces.push_back(piece);
}

const CServedText::CPiece& CServedText::PieceAt(uint32_t at) const {
  const auto holds = [&](size_t i) {
    return _fPieces[i].at <= at && (i + 1 == _fPieces.size() || at < _fPieces[i + 1].at);
  };
  if (_fLast >= _fPieces.size() || !holds(_fLast)) {
    if (_fLast + 1 < _fPieces.size() && holds(_fLast + 1)) {
      ++_fLast;
    } else {
      const auto behind =
          std::upper_bound(_fPieces.begin(), _fPieces.end(), at,
                           [](uint32_t place, const CPiece& piece) { return place < piece.at; });
      _fLast = static_cast<size_t>(behind - _fPieces.begin()) - 1;
    }
  }
  return _fPieces[_fLast];
}

uint64_t CServedText::Hash() const {
  uint64_t hash = _fSize;
  for (const CPiece& piece : _fPieces) {
    hash = CombineHash(hash, HashBytes(piece.text));
    hash = CombineHash(hash, (uint64_t{piece.source - _fPieces.front().source} << 32) |
                                 (piece.row - _fPieces.front().row));
    hash = CombineHash(hash, piece.is_foreign ? 1 : 0);
  }
  return hash;
}

BytesView CServedText::Read(uint32_t at) const {
  if (at >= _fSize) {
    return {};
  }
  const CPiece& piece = PieceAt(at);
  return piece.text.substr(at - piece.at);
}

CServedText::CPlace CServedText::PlaceOf(uint32_t at, uint32_t row) const {
  const CPiece& piece = PieceAt(at);
  if (piece.is_foreign) {
    return {piece.source, piece.row, true};
  }
  return {piece.source + (at - piece.at), piece.row + (row - piece.own_row), false};
}

uint32_t CServedText::EndOf(uint32_t end) const {
  if (end == 0) {
    return PlaceOf(0, 0).at;
  }
  const CPiece& piece = PieceAt(end - 1);
  return piece.is_foreign ? piece.source : piece.source + (end - piece.at);
}

}  // namespace pysource::standalone
