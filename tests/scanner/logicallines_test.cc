// Where the logical lines of source lie, told as "row,columns text" with ">" behind a line that
// opens a block and "!" behind one that is damaged.

#include "pysource/standalone/scanner/logicallines.h"

#include <gtest/gtest.h>

#include <string>
#include <vector>

namespace pysource::standalone {
namespace {

std::vector<std::string> LinesOf(BytesView source) {
  std::vector<std::string> result;
  CLogicalLines lines(source);
  for (CLogicalLine line; lines.Next(line);) {
    result.push_back(std::to_string(line.row) + "," + std::to_string(line.indent) + " " +
                     std::string(source.substr(line.begin, line.text_end - line.begin)) +
                     (line.opens_block ? ">" : "") + (line.IsDamaged() ? "!" : ""));
  }
  return result;
}

struct CCase {
  const char* source;
  std::vector<std::string> lines;
};

TEST(LogicalLinesTest, AreThoseOfPython) {
  const std::vector<CCase> cases{
      {"\n# c\n  \t\f  a = 1 # d\r\n\tb\rc", {"2,2 a = 1", "3,8 b", "4,0 c"}},
      {"if x : # c\n  f(a,\n\n# (\n b)\n  pass",
       {"0,0 if x :>", "1,2 f(a,\n\n# (\n b)", "5,2 pass"}},
      {"x = a \\\n  + b\ny[1:]\n", {"0,0 x = a \\\n  + b", "2,0 y[1:]"}},
      {"a = 'b\\\nc' rb'\\'' '''\"\n'''; d: e\n", {"0,0 a = 'b\\\nc' rb'\\'' '''\"\n'''; d: e"}},
      {"f'{x[\"a\"]:>{w}}#{{' # b\nc", {"0,0 f'{x[\"a\"]:>{w}}#{{'", "1,0 c"}},
      {"f'{f'{'#'}'}\\N{DASH}' # b\nc", {"0,0 f'{f'{'#'}'}\\N{DASH}'", "1,0 c"}},
      {"f'''{x:\n{y}}''' f'{\nx}' # b\nc", {"0,0 f'''{x:\n{y}}''' f'{\nx}'", "3,0 c"}},
      {"if'a':\n rf'\\{b}' # c", {"0,0 if'a':>", "1,1 rf'\\{b}'"}},
      {"f(lambda: {'a': [1]})\nmatch x:", {"0,0 f(lambda: {'a': [1]})", "1,0 match x:>"}},
      // Damage goes no further than it must.
      {"f(a\n  def g(): (b]\nc)", {"0,0 f(a!", "1,2 def g(): (b]\nc)!"}},
      {"x = 'a\ny = f'{b\nreturn\nf'{c:'\nd",
       {"0,0 x = 'a!", "1,0 y = f'{b!", "2,0 return", "3,0 f'{c:'!", "4,0 d"}},
      {"'''a\nb", {"0,0 '''a\nb!"}},
  };
  for (const CCase& c : cases) {
    EXPECT_EQ(LinesOf(c.source), c.lines) << c.source;
  }
}

}  // namespace
}  // namespace pysource::standalone
