#include "pysource/standalone/scanner/parsecache.h"

namespace pysource::standalone {
namespace {

// 20 MB, some 100,000 lines.
constexpr size_t kMaxNodes = size_t{1} << 20;

// Moves a node by these differences, which wrap around.
void Move(CNode& node, uint32_t bytes, uint32_t rows, uint32_t nodes) {
  node.begin += bytes;
  node.end += bytes;
  node.row += rows;
  node.next += nodes;
}

}  // namespace

void CParseCache::BeginSource() {
  if (_fNodeCount > kMaxNodes) {
    std::erase_if(_fEntries, [&](const auto& each) {
      const bool is_old = each.second.source != _fSource;
      _fNodeCount -= is_old ? each.second.nodes.size() : 0;
      return is_old;
    });
  }
  ++_fSource;
}

bool CParseCache::Append(const CServedText& text, std::vector<CNode>& nodes, CErrors& errors) {
  const auto found = _fEntries.find(text.Hash());
  if (found == _fEntries.end()) {
    return false;
  }
  CEntry& entry = found->second;
  entry.source = _fSource;
  const CServedText::CPlace origin = text.PlaceOf(0, 0);
  const auto first = static_cast<NodeIndex>(nodes.size());
  nodes.insert(nodes.end(), entry.nodes.begin(), entry.nodes.end());
  for (size_t i = first; i < nodes.size(); ++i) {
    Move(nodes[i], origin.at, origin.row, first);
  }
  errors = entry.errors;
  errors.first_row += origin.row;
  return true;
}

void CParseCache::Keep(const CServedText& text, const std::vector<CNode>& nodes, size_t first,
                       const CErrors& errors) {
  const CServedText::CPlace origin = text.PlaceOf(0, 0);
  CEntry& entry = _fEntries[text.Hash()];
  _fNodeCount += nodes.size() - first - entry.nodes.size();
  entry.nodes.assign(nodes.begin() + static_cast<ptrdiff_t>(first), nodes.end());
  for (CNode& node : entry.nodes) {
    Move(node, 0U - origin.at, 0U - origin.row, 0U - static_cast<uint32_t>(first));
  }
  entry.errors = {errors.count, errors.damage, errors.first_row - origin.row};
  entry.source = _fSource;
}

}  // namespace pysource::standalone
