// What the scanner says of source: tables of source and the records that come of it.

#include "pysource/standalone/scanner/scanner.h"
#include "pysource/host/symbolinfo/infobytes.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <algorithm>
#include <filesystem>
#include <random>
#include <string>
#include <vector>

#include "fuzz/scanner_body.h"
#include "pysource/host/strutils.h"
#include "pysource/standalone/scanner/sourcefile.h"
#include "tests/fakes/random.h"
#include "tests/scanner/scan_helper.h"

namespace pysource::standalone {
namespace {

struct CCase {
  const char* why;
  const char* source;
  const char* records;
};

void Check(const std::vector<CCase>& cases) {
  CScanWorld world;
  for (const Text module : {"os", "os.path", "pkg.mod", ".sib", "..up.x", "star"}) {
    world.resolver.Add(module);
  }
  for (const CCase& c : cases) {
    EXPECT_EQ(Dump(world.Scan(c.source), world.loc), Text(c.records)) << c.why << "\n" << c.source;
  }
}

TEST(ScannerTest, Values) {
  Check({
      {"typed literals", "a = 1; b = 2.5; c = 3j; d = 0x3\n",
       "''\n  a :s1;:lint\n  b :s1;:lfloat\n  c :s1;:lcomplex\n  d :s1;:lint\n"},
      {"strings by their prefix", "a = 's'\nb = rb's'\nc = f'{a}'\nd = 'x' \"y\"\n",
       "''\n  a :s1;:lstr\n  b :s2;:lbytes\n  c :s3;:lstr\n  d :s4;:lstr\n"},
      {"displays and constants", "a = {}; b = {1}; c = (); d = -1; e = None; f = True; g = ...\n",
       "''\n  a :s1;:ldict\n  b :s1;:lset\n  c :s1;:ltuple\n  d :s1;:lint\n  e :s1;:lNoneType\n"
       "  f :s1;:lbool\n  g :s1;:lellipsis\n  =b 1\n"},
      {"names, calls, expressions", "a = b . c\nd = f(1)(2)\ne = x [ 1 : 2 ] + 'y z'\n",
       "''\n  a :s1;b.c\n  d :s2;:Cf(1)\n  e :s3;:ex[1:2]+'y z'\n"},
      {"every branch is an alternative", "a = (1 if b else c) or 'x'\n",
       "''\n  a :s1;:lint;c;:lstr\n"},
      {"each binding tells its own", "a = 1\na = 's'\na = 2\n",
       "''\n  a :s1;:lint;:s2;:lstr;:s3;:lint\n"},
      {"a chain of targets", "a = b.c = d = 1\n", "''\n  a :s1;:lint\n  d :s1;:lint\n"},
      {"a lambda that has a name", "f = lambda x, *y: x\n",
       "''\n  f :s1;:F<lambda>(x,*y)\n'<lambda>' :F<lambda>(x,*y)\n  return :w1;x\n  x :s1;:A0\n  "
       "y :s1;:A1;:ltuple\n"},
      {"augmented", "a += 1\na.b -= 2\n", "''\n  a :s1;:ea+1\n"},
      {"brackets and separators within strings do no harm", "a = f(')').g\nb = ';' + x['(']\n",
       "''\n  a :s1;:ef('_').g\n  b :s2;:e'_'+x['_']\n"},
  });
}

TEST(ScannerTest, Targets) {
  Check({
      {"pairwise", "(a, [b, c]), d = (1, x), 's'\n",
       "''\n  a :s1;:lint\n  b :s1;x[0]\n  c :s1;x[1]\n  d :s1;:lstr\n"},
      {"from a call, counted from the end behind a star", "a, *b, c = f()\n",
       "''\n  a :s1;:ef()[0]\n  b :s1;:llist\n  c :s1;:ef()[-1]\n"},
      {"parentheses are no sequence", "(a) = 1\n(b,) = c\n(d): int\n(e): int = 1\n(f) += 1\n",
       "''\n  a :s1;:lint\n  b :s2;c[0]\n  e :s4;:h4;:tint;:lint\n  f :s5;:e(f)+1\n"},
      {"loops", "for i, j in a.b: pass\nfor k in (1, 's'): pass\n",
       "''\n  i :s1;a.b[*][0]\n  j :s1;a.b[*][1]\n  k :s2;:lint;:lstr\n"},
      {"with, except, del",
       "with f(x) as a, b as (c, d): pass\ntry: pass\n"
       "except (E, m.F) as e: del e, y\n",
       "''\n  a :s1;:Cf\n  c :s1;b[0]\n  d :s1;b[1]\n  e :s3;:CE;:Cm.F;:g3\n  y :g3\n"},
      {"except groups", "try: pass\nexcept* E as e: pass\n", "''\n  e :s2;:CExceptionGroup\n"},
      {"hints", "a: int\nb: 'List[int]' = 1\n",
       "''\n  a :h1;:tint\n  b :s2;:h2;:tList[int];:lint\n"},
      {"a starred attribute", "import a\n*a.b, c = x\n", "''\n  a :s1;:ia\n  c :s2;x[-1]\n"},
      {"what only looks like a binding", "f'{a:=10} {b:{c:=3}} {(d:=4)}'\ntype(e).f = 1\n",
       "''\n  d :s1;:w1;:lint\n"},
      {"match: captures and no values",
       "match x:\n case C(a, k=b) as c: pass\n case [d, *e] | {'k': f, **g}: pass\n"
       " case m.n | _: pass\n case h: pass\n",
       "''\n  a :s2\n  b :s2\n  c :s2\n  d :s3\n  e :s3\n  f :s3\n  g :s3\n  h :s5\n"},
      {"walrus, out of comprehensions",
       "if (a := 1): pass\ndef f():\n return [b for c in d if (b := c)]\n",
       "''\n  a :s1;:w1;:lint\n  f :s2;:Ff()\n'f' :Ff()\n  b :s3;:w3;:Sf.<listcomp> c\n  return "
       ":w3;:llist\n'f.<listcomp>' :w3\n  c :s3;:w3;:Sf d[*]\n"},
      {"soft keywords are names", "match = 1\ntype = 2\nprint = 3\ncase = 4\n_ = 5\n",
       "''\n  _ :s5;:lint\n  case :s4;:lint\n  match :s1;:lint\n  print :s3;:lint\n"
       "  type :s2;:lint\n"},
      {"names in their compatibility form", "\xEF\xAC\x81x = 1\n", "''\n  fix :s1;:lint\n"},
      {"domains of plain sequences alone",
       "__all__ = ['a', \"b\"]\n__all__ += ['c']\nx = [1, y]\nz = ['a;b']\nw = (-1, None)\n",
       "''\n  __all__ :s1;:llist;:s2;:e__all__+['c']\n  w :s5;:ltuple\n  x :s3;:llist\n"
       "  z :s4;:llist\n  =__all__ 'a';\"b\";'c'\n  =w -1;None\n"},
  });
}

TEST(ScannerTest, Imports) {
  Check({
      {"all forms",
       "import os.path, sys as s\nfrom . import a\nfrom ..b . c import d as e, f\n"
       "from __future__ import annotations\nfrom m import (g, h as i,)\n",
       "''\n  a :s2;:f. a\n  annotations :s4;:f__future__ annotations\n  e :s3;:f..b.c d\n  f "
       ":s3;:f..b.c f\n  g :s5;:fm g\n  i :s5;:fm h\n  import :s1;:isys\n  os :s1;:ios.path\n  s "
       ":s1;:asys s\n"},
      {"a star looks at the module, if there is one", "from star import *\nfrom nowhere import *\n",
       "''\n  * :s1;:fstar *;:s2;:fnowhere *\n  seen file:///star.py 50.0\n"},
  });
}

TEST(ScannerTest, Definitions) {
  Check({
      {"arguments of all kinds",
       "def f(a, /, b: int, *c: int, d=x, e: 'T' = 1, **g) -> List[int]: pass\n",
       "''\n  f :s1;:Ff(a,/,b,*c,d=,e=,**g)\n'f' :Ff(a,/,b,*c,d=,e=,**g)\n  a :s1;:A0\n  b "
       ":s1;:A1;:h1;:tint\n  c :s1;:A2;:h1;:tint;:ltuple\n  d :s1;:A3;:S x\n  e "
       ":s1;:A4;:h1;:tT;:lint\n  g :s1;:A5;:ldict\n  return :h1;:tList[int]\n"},
      {"methods and what decorators make of them",
       "class C(B[int], m.D, metaclass=M):\n def a(self): pass\n @staticmethod\n def b(x): pass\n"
       " @abc.abstractclassmethod\n def c(cls): pass\n @p(1)\n async def __new__(cls): pass\n",
       "''\n  C :s1;:cC(B[int],m.D,metaclass=M)\n'C' :cC(B[int],m.D,metaclass=M)\n  __new__ "
       ":s8;:dp;:uC.__new__(cls)\n  a :s2;:mC.a(self)\n  b :s4;:dstaticmethod;:uC.b(x)\n  c "
       ":s6;:dabc.abstractclassmethod;:uC.c(cls)\n'C.a' :mC.a(self)\n  self :s2;:A0;:@\n'C.b' "
       ":uC.b(x)\n  x :s4;:A0\n'C.c' :uC.c(cls)\n  cls :s6;:A0\n'C.__new__' :uC.__new__(cls)\n  "
       "cls :s8;:A0\n"},
      {"brackets do not end a block, wherever their lines begin",
       "class C:\n  x = (a.\nb,\n# c\n1 +\nc)\n  y = 1\n",
       "''\n  C :s1;:cC()\n'C' :cC()\n  x :s2;:ltuple\n  y :s7;:lint\n"},
      {"an argument by keyword is no self; what is returned and yielded",
       "class C:\n def m(*, a):\n  yield a\n  b = yield from a\n  return -1\n",
       "''\n  C :s1;:cC()\n'C' :cC()\n  m :s2;:mC.m(*,a)\n'C.m' :mC.m(*,a)\n  a :s2;:A0\n  b "
       ":s4;:eyield from a\n  return :w5;:lint\n  yield :w3;a;:w4;a[*]\n"},
      {"the second definition of a name", "if x:\n def f(): a = 1\nelse:\n class f: b = 2\n",
       "''\n  f :s2;:Ff();:s4;:cf#2()\n'f' :Ff()\n  a :s2;:lint\n'f#2' :cf#2()\n  b :s4;:lint\n"},
      {"global and nonlocal", "def f():\n global a, b\n a = 1\n def g():\n  nonlocal c\n  c = 2\n",
       "''\n  a :s3;:lint\n  f :s1;:Ff()\n'f' :Ff()\n  a :G;:s3;:lint\n  b :G\n  g "
       ":s4;:Ff.g()\n'f.g' :Ff.g()\n  c :n;:s6;:lint\n"},
      {"what belongs to the outside of a definition",
       "def f(a=[x for x in y], b=lambda: (z := 1)) -> (w := int): pass\n",
       "''\n  f :s1;:Ff(a=,b=)\n  w :s1;:w1;int\n'f' :Ff(a=,b=)\n  a :s1;:A0;:llist\n  b "
       ":s1;:A1;:S :elambda:(z:=1)\n  return :h1;:t(w:=int)\n'<listcomp>' :w1\n  x :s1;:w1;:S "
       "y[*]\n'<lambda>' :F<lambda>()\n  return :w1;:lint\n  z :s1;:w1;:lint\n"},
      {"nested comprehensions", "a = {b: {c for c in d} for b in (e for e in f)}\n",
       "''\n  a :s1;:ldict\n'<dictcomp>' :w1\n  b :s1;:w1;:S :e(e for e in "
       "f)[*]\n'<dictcomp>.<setcomp>' :w1\n  c :s1;:w1;:S<dictcomp> d[*]\n'<genexpr>' :w1\n  e "
       ":s1;:w1;:S f[*]\n"},
      {"type parameters",
       "def f[T: int, *U](x: T): pass\nclass C[**P]: pass\ntype A[T] = list[T]\n",
       "''\n  A :s3;:tlist[T]\n  C :s2;:cC()\n  f :s1;:Ff(x)\n'f' :Ff(x)\n"
       "  T :s1;:TTypeVar;:tint\n  U :s1;:TTypeVarTuple\n  x :s1;:A0;:h1;:tT\n'C' :cC()\n"
       "  P :s2;:TParamSpec\n"},
  });
}

TEST(ScannerTest, Attributes) {
  Check({
      {"of the first argument, whatever it is called, also from within the method",
       "class C:\n def m(me, v):\n  me.a, me.b = 1, v\n  def g(): me.c: int = v\n  def h(me): me.d "
       "= 1\n",
       "''\n  C :s1;:cC()\n'C' :cC()\n  m :s2;:mC.m(me,v)\n'C.m' :mC.m(me,v)\n  g :s4;:FC.m.g()\n"
       "  h :s5;:FC.m.h(me)\n  me :s2;:A0;:@\n  v :s2;:A1\n'C.m' attrs > 'C'\n  @a :s3;:lint\n"
       "  @b :s3;:SC.m v\n'C.m.g' attrs > 'C'\n"
       "  @c :s4;:h4;:SC.m.g :tint;:SC.m.g v\n  seen 'C.m' 100.0\n"
       "'C.m.h' :FC.m.h(me)\n  me :s5;:A0\n"},
      {"of the class, from a class method; none from a static one or of other objects",
       "class C:\n @classmethod\n def m(cls): cls.a = x\n @staticmethod\n def s(x): x.b = 1\n"
       " def n(self, o): o.c = self.d.e = 1\n",
       "''\n  C :s1;:cC()\n'C' :cC()\n  m :s3;:dclassmethod;:uC.m(cls)\n  n :s6;:mC.n(self,o)\n"
       "  s :s5;:dstaticmethod;:uC.s(x)\n'C.m' :uC.m(cls)\n  cls :s3;:A0\n'C.m' attrs > 'C'\n"
       "  a :s3;:SC.m x\n'C.s' :uC.s(x)\n  x :s5;:A0\n'C.n' :mC.n(self,o)\n"
       "  o :s6;:A1\n  self :s6;:A0;:@\n"},
      {"of modules, by every form of import",
       "import os.path, os as o\nfrom pkg import mod\nfrom . import sib as s\nimport nowhere\n"
       "os.a = 1\no.path.b = x\nmod.c = 's'\ns.d = 2\nnowhere.e = 3\n",
       "''\n  import :s1;:ios\n  mod :s2;:fpkg mod\n  nowhere :s4;:inowhere\n  o :s1;:aos o\n  os "
       ":s1;:ios.path\n  s :s3;:f. sib\n'' attrs > file:///.sib.py\n  d :Ufile:///t.py :S "
       ":s8;:lint\n'' attrs > file:///os.path.py\n  b :Ufile:///t.py :S :s6;:Ufile:///t.py :S "
       "x\n'' attrs > file:///os.py\n  a :Ufile:///t.py :S :s5;:lint\n'' attrs > "
       "file:///pkg.mod.py\n  c :Ufile:///t.py :S :s7;:lstr\n"},
      {"names are looked up as Python does",
       "import os\nclass C:\n os = 1\n def m(self):\n  os.a = 1\ndef f():\n os = 1\n os.b = 1\n",
       "''\n  C :s2;:cC()\n  f :s6;:Ff()\n  os :s1;:ios\n'C' :cC()\n  m :s4;:mC.m(self)\n"
       "  os :s3;:lint\n'C.m' :mC.m(self)\n  self :s4;:A0;:@\n'C.m' attrs > file:///os.py\n"
       "  a :Ufile:///t.py :SC.m :s5;:lint\n  seen '' 100.0\n'f' :Ff()\n  os :s7;:lint\n"},
  });
}

// What the info cache is promised of every result.
TEST(ScannerTest, KeysTimesAndOrder) {
  CScanWorld world;
  world.resolver.Add("os");
  const CFileScan scan =
      world.Scan("import os\ndef f(): os.a = 1\nclass C:\n def m(self): self.x = 1\n", true);
  std::vector<Text> order;
  for (const CScanResult& result : scan.results) {
    order.push_back(result.scanned_scope + Text(result.scan_name));
    for (const scopeinfo::CScopeInfoPtr& info : result.infos) {
      EXPECT_EQ(info->key.scanned_loc(), world.loc);
      EXPECT_EQ(info->key.scanned_scope(), result.scanned_scope);
      EXPECT_EQ(info->key.scan_name(), result.scan_name);
      EXPECT_TRUE(info->incomplete);
      EXPECT_EQ(info->_inst_domains, std::nullopt);
      const DiskTime* const seen =
          info->scope_seen_dict->Find(CScopeRef{world.loc, result.scanned_scope});
      ASSERT_NE(seen, nullptr);
      EXPECT_EQ(*seen, 100.0);
      // A record for another file says nothing of that file's content.
      const bool is_own = info->loc == world.loc;
      EXPECT_EQ(info->disk_mtime, is_own ? std::optional<DiskTime>(100.0) : std::nullopt);
    }
    if (result.scan_name == kNamesScan) {
      ASSERT_EQ(result.infos.size(), 1U);
      EXPECT_EQ(result.infos[0]->for_scope, result.scanned_scope);
      EXPECT_EQ(result.infos[0]->loc, world.loc);
    }
  }
  EXPECT_THAT(order, testing::ElementsAre(":names", ":attrs", "f:names", "f:attrs", "C:names",
                                          "C:attrs", "C.m:names", "C.m:attrs"));
}

// ---- Whatever the source

// Every value splits into items that are whole: none empty, none with a separator outside of brackets, all text.
void CheckItems(const CFileScan& scan, BytesView source) {
  const auto check = [&](const CStrDict& dict) {
    for (const auto& [name, ibytes] : dict) {
      ASSERT_TRUE(IsUtf8(name) && IsUtf8(ibytes)) << source;
      ASSERT_EQ(ibytes.find('\0'), BytesView::npos);
      for (const BytesView item : NonNestedSplit(ibytes, kInfoBytesSep)) {
        ASSERT_FALSE(item.empty()) << name << " " << ibytes << "\n" << source;
        ASSERT_EQ(NonNestedSplit(item, kInfoBytesSep).size(), 1U) << ibytes << "\n" << source;
      }
    }
  };
  for (const CScanResult& result : scan.results) {
    for (const scopeinfo::CScopeInfoPtr& info : result.infos) {
      check(info->type_equivs);
      if (info->inst_type_equivs) {
        check(*info->inst_type_equivs);
      }
    }
  }
}

Text Repeat(TextView piece, size_t count) {
  Text result;
  for (; count != 0; --count) {
    result += piece;
  }
  return result;
}

TEST(ScannerTest, ItemsSurviveSplittingWhateverTheSource) {
  const uint64_t seed = fakes::TestSeed();
  std::mt19937_64 random(seed);
  SCOPED_TRACE("seed " + std::to_string(seed));
  const std::vector<Text> pieces{"x",        "self.a",
                                 "=",        "= ",
                                 "(",        ")",
                                 "[",        "]",
                                 "{",        "}",
                                 ";",        ",",
                                 ":",        "'",
                                 "\"",       "\\",
                                 "\n",       "\n ",
                                 "\n  ",     " ",
                                 "#",        "f'{",
                                 "\"\"\"",   "def f(",
                                 "class C(", "lambda ",
                                 "for ",     " in ",
                                 "import ",  "from ",
                                 "with ",    " as ",
                                 "-> ",      ":=",
                                 "@",        "*",
                                 "**",       "if ",
                                 "else ",    "1",
                                 "'a;('",    "match x:\n case ",
                                 "except ",  "\xC3\xA9",
                                 "\xFF",     std::string(1, '\0'),
                                 "\r",       "global x",
                                 "."};
  CScanWorld world;
  std::vector<Text> sources;
  size_t items = 0;
  for (int round = 0; round < 3000; ++round) {
    Text source = "class C:\n def m(self):\n  x = ";
    for (size_t i = random() % 60; i != 0; --i) {
      source += pieces[random() % pieces.size()];
    }
    const CFileScan scan = world.Scan(source);
    CheckItems(scan, source);
    items += scan.results.size();
    ASSERT_FALSE(HasFatalFailure()) << source;
    sources.push_back(std::move(source));
  }
  EXPECT_GT(items, 10000U);

  // None of them changes what is found in the next one.
  for (const auto& entry :
       std::filesystem::directory_iterator(SCOPEINFO_SOURCE_DIR "/examples/notebook")) {
    sources.insert(sources.end(), 50, ReadSourceFile(entry.path().string()).source);
  }
  std::shuffle(sources.begin(), sources.end(), random);
  EXPECT_NO_THROW(fuzz::CheckSources({sources.begin(), sources.end()}, false));

  // Nor does the text that a buffer had before an edit.
  std::vector<Text> edits{Repeat("class C:\n def m(self):\n  self.x = [i for i in 'y']\n", 120)};
  for (int edit = 0; edit < 100; ++edit) {
    Text text = edits.back();
    text.replace(random() % text.size(), random() % 9, pieces[random() % pieces.size()]);
    edits.push_back(random() % 20 == 0 ? edits.front() : std::move(text));
  }
  EXPECT_NO_THROW(fuzz::CheckSources({edits.begin(), edits.end()}, true));
}

// Nesting and repetition far beyond what the parser bears by itself.
TEST(ScannerTest, HostileSourceNeitherCrashesNorHangs) {
  constexpr size_t kCount = 70000;  // more than 16 bits count
  Text indents;
  for (size_t i = 0; i < 20000; ++i) {
    indents += Text(i * 7 % 90, ' ') + (i % 3 == 0 ? "x:\n" : i % 3 == 1 ? "if x:\n" : "try:\n");
  }
  const std::vector<Text> sources{
      Repeat("(", kCount),
      Repeat("([{", kCount),
      Repeat("x = (", kCount) + Repeat(")", kCount),
      Repeat("f'{", kCount),
      "f'{" + Repeat("(", kCount) + "}'",
      Repeat("class C(", kCount),
      Repeat("def f(a:", kCount),
      Repeat("if x:", kCount),
      Repeat("try:\n", kCount),
      Repeat("x = \n", kCount),
      Repeat("# c\n", kCount),
      "x = 1\n" + Repeat("# c\n", kCount) + "y = 2\n",
      Repeat("\\\n", kCount),
      "x = " + Repeat("not ", kCount),
      "x = " + Repeat("lambda a, b: ", kCount),
      "x = " + Repeat("1 if y else ", kCount) + "2",
      "f(" + Repeat("*", kCount) + ")",
      Repeat("(a, ", kCount) + Repeat(")", kCount) + " = 1",
      Repeat("x = ", kCount) + "1\n",
      Repeat("'", kCount + 1),
      Repeat("x = 1; self.y = 2\n", 20000),
      indents,
      Text(kCount, '\0'),
      Text(kCount, '\xFF'),
  };
  CScanWorld world;
  for (const Text& source : sources) {
    SCOPED_TRACE(source.substr(0, 20));
    const CFileScan scan = world.Scan(source);
    CheckItems(scan, source.substr(0, 20));
    EXPECT_GE(scan.results.size(), 2U);
  }
}

// The guard that keeps the parser from harm leaves programs alone, and says so when it does not.
TEST(ScannerTest, LargeProgramsAreReadInFull) {
  Text source;
  for (size_t i = 0; i < 9000; ++i) {
    const Text n = std::to_string(i);
    for (const TextView piece :
         {TextView("# "), TextView(n), TextView("\n@d(')', f'{x[\"(\"]}')\nclass C"), TextView(n),
          TextView(":\n    \"\"\"It's (\n\"\"\"\n    def m(self, a={'b': -"), TextView(n),
          TextView("}):\n        if a: return [x for x in a]\n        else:\n            self.y"),
          TextView(n), TextView(" = a\n")}) {
      source += piece;
    }
  }
  for (size_t i = 0; i < 2000; ++i) {
    source += "def f" + std::to_string(i) + "(self, a: int) -> int: ...\n";
  }
  source += "big = [" + Repeat("-1, not x, ", 20000) + "]\n";
  source += "sum = 1" + Repeat(" + 2 * x ** 3", 20000) + "\n";
  source += "deep = " + Repeat("[", 190) + Repeat("]", 190) + "\n";
  CScanWorld world;
  const CFileScan scan = world.Scan(source);
  EXPECT_EQ(scan.error_count, 0U);
  EXPECT_EQ(scan.results.size(), 2U * (1 + 9000 * 3 + 2000));
  const scopeinfo::CScopeInfoPtr module = scan.results[0].infos.at(0);
  EXPECT_EQ(module->type_equivs.size(), 9000U + 2000 + 3);
  EXPECT_TRUE(module->type_equivs.Contains("deep"));

  const CFileScan cut = world.Scan("x = 1\n" + Repeat("(", 5000) + Repeat(")", 5000) + "\ny = 2\n");
  EXPECT_EQ(cut.results[0].infos.at(0)->type_equivs.size(), 2U);
  EXPECT_GT(cut.error_count, 0U);
  EXPECT_EQ(cut.first_error_line, 2U);
}

}  // namespace
}  // namespace pysource::standalone
