#include "pysource/standalone/scanner/syntaxtree.h"

#include <algorithm>
#include <optional>
#include <utility>

#include "pysource/standalone/scanner/levels.h"
#include "pysource/standalone/scanner/longlines.h"

namespace pysource::standalone {
namespace {

// A statement that is longer than this is parsed without its blocks, and these by themselves.
constexpr uint32_t kMaxStatement = 4096;
// Statements are parsed together up to this size. The parser's own effort for a parse, some
// microseconds, does not show then.
constexpr uint32_t kGroupSize = 4096;
// After a group with many errors the next one is small: what an error costs grows with their number.
constexpr size_t kManyErrors = 8;
constexpr uint32_t kSmallGroupSize = 256;
// Blocks within blocks that are parsed by themselves; deeper ones line by line, without their
// structure. Python itself gives up at 100.
constexpr int kMaxDepth = 100;
// More comments and blank lines than this between two lines are not shown to the parser: at each of
// them it looks ahead over all that follow.
constexpr uint32_t kMaxGap = 512;

// So much of a source the parser may fail to understand, in bytes: at least, and for each byte of
// the source. To recover from an error takes the parser up to fifty times what the same bytes take
// when they are valid, so that a large file without any sense in it would take minutes. Mistakes
// that somebody makes, and even source of another version of Python, stay far below; text in
// another language does not.
constexpr size_t kMinDamage = size_t{64} << 10;
constexpr size_t kSourceOfDamage = 16;
// When that is spent, at most so many texts are left out behind one with errors.
constexpr size_t kMaxLeftOut = 64;

// More nodes than this are given back after a file, so that one huge file does not hold its memory
// for good: 20 MB.
constexpr size_t kMaxNodesKept = size_t{1} << 20;
// What follows after so many nodes is left out: 80 MB. Of usual code this is some 40 MB.
constexpr size_t kMaxNodes = size_t{1} << 22;

// What a clause needs in front of it to be a statement.
BytesView OpeningFor(FirstWord clause) {
  switch (clause) {
    case FirstWord::kElif:
    case FirstWord::kElse:
      return "if 1:pass\n";
    case FirstWord::kExcept:
    case FirstWord::kFinally:
      return "try:pass\n";
    case FirstWord::kCase:
      return "match 1:\n";
    default:
      return {};
  }
}

}  // namespace

bool CSyntaxTree::Parse(BytesView source, bool is_buffer) {
  _fSource = source;
  _fIsBuffer = is_buffer;
  if (is_buffer) {
    _fCache.BeginSource();
  }
  _fIsWhole = true;
  _fErrorCount = 0;
  _fFirstErrorLine = 0;
  if (_fNodes.capacity() > kMaxNodesKept) {
    _fNodes = {};
  }
  _fNodes.clear();
  _fDamageLeft = kMinDamage + source.size() / kSourceOfDamage;
  _fLeaveOut = 0;
  _fLeaveOutNext = 1;
  const auto size = static_cast<uint32_t>(source.size());
  _fNodes.push_back(CNode{0, size, 1, 0, Tag::kModule, 0});
  ParseBlock({0, size, 0}, 0);
  _fNodes[0].next = Size();
  return _fIsWhole;
}

void CSyntaxTree::ParseBlock(const CSourceRange& range, int depth) {
  CServedText group;
  CLevels levels;
  group.Reset(_fSource);
  uint32_t group_size = kGroupSize;
  const auto parse_group = [&] {
    if (!group.IsEmpty()) {
      const size_t errors = _fErrorCount;
      ParseText(group, _fNodes);
      group_size = _fErrorCount - errors > kManyErrors ? kSmallGroupSize : kGroupSize;
      group.Reset(_fSource);
      levels.Reset();
    }
  };
  std::vector<CLine> lines;  // of the present statement, as long as it is small
  CSourceRange statement{};
  const auto end_statement = [&] {
    if (statement.end - statement.begin > kMaxStatement && depth < kMaxDepth) {
      parse_group();
      ParseSplit(statement, depth);
    } else {
      for (const CLine& line : lines) {
        if (_fDamageLeft == 0 && line.line.IsDamaged()) {
          NoteError(line.line.row);
        } else {
          AddLine(line, kMaxGap, levels, group);
        }
      }
      if (group.Size() >= group_size) {
        parse_group();
      }
    }
    lines.clear();
  };
  CStatements all(_fSource, range, depth >= kMaxDepth);
  for (bool is_first = true; !IsStopped() && all.Next(); is_first = false) {
    if (is_first || all.BeginsStatement()) {
      if (!is_first) {
        end_statement();
      }
      statement.begin = all.Begin();
      statement.row = all.Line().row;
    }
    statement.end = all.Line().end;
    if (statement.end - statement.begin <= kMaxStatement || depth >= kMaxDepth) {
      lines.push_back({all.Begin(), all.Line()});
    }
  }
  if (statement.end != 0) {
    end_statement();
  }
  parse_group();
}

// Appends the line with what lies between it and the line before, unless that is more than `max_gap`
// of blank lines and comments.
void CSyntaxTree::AddLine(const CLine& line, uint32_t max_gap, CLevels& levels, CServedText& text) {
  uint32_t begin = line.begin;
  if (!text.IsEmpty() && text.SourceEnd() <= begin && begin - text.SourceEnd() <= max_gap) {
    begin = text.SourceEnd();
  }
  const std::optional<CLineCut> cut = CutLongLine(_fSource, line.line);
  if (!cut) {
    levels.Serve(_fSource, begin, line.line.end, line.line, text);
    return;
  }
  CLogicalLine beginning = line.line;
  beginning.text_end = cut->end;
  levels.Serve(_fSource, begin, cut->end, beginning, text);
  text.AddForeign(cut->closing);
  text.AddForeign(line.line.opens_block ? ":" : "\n");
  if (line.line.excess_at != 0) {
    NoteError(line.line.row);
  }
}

// The headers of the statement together, each with "pass" for its block; the blocks by themselves.
void CSyntaxTree::ParseSplit(const CSourceRange& statement, int depth) {
  CServedText headers;
  CLevels levels;
  headers.Reset(_fSource);
  std::vector<CBody> bodies;
  CStatements all(_fSource, statement, false);
  uint32_t header_indent = 0;
  bool after_match = false;
  uint32_t header_end = 0;  // of the last one, when a block may follow
  for (bool is_first = true; all.Next(); is_first = false) {
    const CLogicalLine& line = all.Line();
    // The clauses of a match statement are headers in a block of their own.
    if (is_first || (after_match && line.first == FirstWord::kCase)) {
      header_indent = line.indent;
    }
    if (line.indent > header_indent) {
      if (bodies.empty() || bodies.back().header_end != header_end) {
        bodies.push_back({header_end, {all.Begin(), 0, line.row}});
      }
      bodies.back().range.end = line.end;
      after_match = false;
      continue;
    }
    after_match = line.first == FirstWord::kMatch && line.opens_block;
    if (headers.Size() > kMaxStatement && !OpeningFor(line.first).empty()) {
      ParseHeaders(headers, bodies, depth);
      headers.Reset(_fSource);
      bodies.clear();
      headers.AddForeign(OpeningFor(line.first));
    }
    if (line.opens_block && !after_match) {
      CLogicalLine header = line;
      header.end = line.text_end;
      AddLine({all.Begin(), header}, 0, levels, headers);
      headers.AddForeign("pass\n");
    } else {
      AddLine({all.Begin(), line}, 0, levels, headers);
    }
    header_end = line.opens_block ? line.text_end : line.end;
  }
  ParseHeaders(headers, bodies, depth);
}

void CSyntaxTree::ParseHeaders(const CServedText& text, const std::vector<CBody>& bodies,
                               int depth) {
  std::vector<CNode> headers;
  ParseText(text, headers);
  struct COpen {
    NodeIndex node;
    NodeIndex end;  // in `headers`
  };
  std::vector<COpen> open;
  auto body = bodies.begin();
  uint32_t body_end = 0;  // of the last one; what it is in ends there at the earliest
  const auto parse_body = [&] {
    const NodeIndex first = Size();
    ParseBlock((body++)->range, depth + 1);
    for (NodeIndex i = first; i < Size(); i = _fNodes[i].next) {
      body_end = _fNodes[i].end;
    }
  };
  const auto close = [&](NodeIndex at) {
    for (; !open.empty() && open.back().end <= at; open.pop_back()) {
      CNode& node = _fNodes[open.back().node];
      node.next = Size();
      node.end = std::max(node.end, body_end);
    }
  };
  for (NodeIndex i = 0; i < headers.size(); ++i) {
    close(i);
    CNode node = headers[i];
    const bool is_block = std::exchange(node.mark, 0) == kForeignBlock;
    // A block whose header was not understood comes behind it at least.
    while (body != bodies.end() && body->header_end < node.begin + (is_block ? 0 : 1)) {
      parse_body();
    }
    const NodeIndex block = Size();
    open.push_back({block, headers[i].next});
    _fNodes.push_back(node);
    if (is_block && body != bodies.end() && body->header_end == node.begin) {
      parse_body();
      if (block + 1 < Size()) {
        _fNodes[block].begin = _fNodes[block + 1].begin;
        _fNodes[block].row = _fNodes[block + 1].row;
      }
    }
  }
  close(kNoNode);
  while (body != bodies.end()) {
    parse_body();
  }
}

void CSyntaxTree::ParseText(const CServedText& text, std::vector<CNode>& nodes) {
  if (_fNodes.size() > kMaxNodes || _fLeaveOut != 0) {
    _fLeaveOut -= _fLeaveOut != 0 ? 1 : 0;
    NoteError(text.PlaceOf(0, 0).row);
    return;
  }
  CParseCache::CErrors errors;
  if (!_fIsBuffer || !_fCache.Append(text, nodes, errors)) {
    const size_t first = nodes.size();
    if (!_fParser.Parse(text, nodes)) {
      _fIsWhole = false;
      return;
    }
    errors = {_fParser.ErrorCount(), _fParser.Damage(), _fParser.FirstErrorRow()};
    if (_fIsBuffer) {
      _fCache.Keep(text, nodes, first, errors);
    }
  }
  if (errors.count != 0) {
    NoteError(errors.first_row);
    _fErrorCount += errors.count - 1;
  }
  SpendDamage(errors.damage);
}

// Decides by what was parsed alone, not by time, so that a source has the same nodes each time.
void CSyntaxTree::SpendDamage(size_t damage) {
  if (_fDamageLeft != 0) {
    _fDamageLeft -= std::min(_fDamageLeft, damage);
  } else if (damage == 0) {
    _fLeaveOutNext = 1;
  } else {
    _fLeaveOut = _fLeaveOutNext;
    _fLeaveOutNext = std::min(_fLeaveOutNext * 2, kMaxLeftOut);
  }
}

void CSyntaxTree::NoteError(uint32_t row) {
  const size_t line = size_t{row} + 1;
  _fFirstErrorLine = _fErrorCount++ == 0 ? line : std::min(line, _fFirstErrorLine);
}

NodeIndex CSyntaxTree::Child(NodeIndex parent, Tag tag) const {
  for (const NodeIndex child : Children(parent)) {
    if (_fNodes[child].tag == tag) {
      return child;
    }
  }
  return kNoNode;
}

NodeIndex CSyntaxTree::LastChild(NodeIndex parent) const {
  NodeIndex last = kNoNode;
  for (const NodeIndex child : Children(parent)) {
    last = child;
  }
  return last;
}

size_t CSyntaxTree::ChildCount(NodeIndex parent) const {
  const CChildren children = Children(parent);
  return static_cast<size_t>(std::distance(children.begin(), children.end()));
}

}  // namespace pysource::standalone
