#include "pysource/host/fastaccess.h"

#include <cctype>
#include <chrono>
#include <utility>

#include "pysource/host/errors.h"

namespace pysource {
namespace {

constexpr size_t kFirstCells = 64;
// A table that one huge record blew up beyond this gives its memory back when it is cleared.
constexpr size_t kMostCellsKept = size_t{1} << 16;

BytesView UpToNul(BytesView s) { return s.substr(0, s.find('\0')); }

}  // namespace

double GetNowTime() {
  const auto now = std::chrono::system_clock::now().time_since_epoch();
  return std::chrono::duration<double>(now).count();
}

bool IsDigit(char c) { return std::isdigit(static_cast<unsigned char>(c)) != 0; }
bool IsAlnum(char c) { return std::isalnum(static_cast<unsigned char>(c)) != 0; }

bool StrInStr(std::optional<BytesView> sub, std::optional<BytesView> whole) {
  if (!sub || !whole) {
    throw CTypeError("Both sub and whole must be strings");
  }
  return UpToNul(*whole).find(UpToNul(*sub)) != BytesView::npos;
}

CBytesTokenizer::CBytesTokenizer() : _fCells(kFirstCells), _fMask(kFirstCells - 1) {}

uint32_t CBytesTokenizer::AddToken(BytesView token, size_t cell, uint32_t tag) {
  const auto index = static_cast<uint32_t>(_fEnds.size());
  _fText += token;
  _fEnds.push_back(_fText.size());
  _fCells[cell] = Cell{tag, index, _fRound};
  if (_fEnds.size() * 2 > _fCells.size()) {
    Grow();
  }
  return index;
}

void CBytesTokenizer::Grow() {
  const size_t size = _fCells.size() * 2;
  _fCells.assign(size, Cell{0, 0, 0});
  _fMask = size - 1;
  for (size_t index = 0; index < _fEnds.size(); ++index) {
    const uint64_t hash = HashBytes(Token(index));
    size_t at = hash & _fMask;
    while (_fCells[at].round == _fRound) {
      at = (at + 1) & _fMask;
    }
    _fCells[at] = Cell{static_cast<uint32_t>(hash >> 32), static_cast<uint32_t>(index), _fRound};
  }
}

void CBytesTokenizer::clear() {
  _fText.clear();
  _fEnds.clear();
  if (_fCells.size() > kMostCellsKept || ++_fRound == 0) {
    _fText.shrink_to_fit();
    _fCells = std::vector<Cell>(kFirstCells);
    _fMask = kFirstCells - 1;
    _fRound = 1;
  }
}

}  // namespace pysource
