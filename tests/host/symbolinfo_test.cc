// The vocabulary of scope names and info bytes.

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <string>
#include <utility>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/strutils.h"
#include "pysource/host/symbolinfo.h"

namespace pysource {
namespace {

using testing::ElementsAre;
using Pieces = std::vector<BytesView>;

TEST(Kinds, EachIsReadByItsLetterAndNoTwoAreAlike) {
  std::set<Kind> kinds;
  for (const CKindRow& row : kKinds) {
    EXPECT_EQ(ReadInfoItem(row.example).kind, row.example[1] == 'S'   ? kArgKind
                                              : row.example[1] == 'U' ? kPlainEquivKind
                                                                      : row.kind)
        << row.example << ": a context is taken off";
    EXPECT_EQ(GetInfoBytesKind(Bytes(row.prefix) + "body;:x"), row.kind) << row.prefix;
    EXPECT_TRUE(row.kind != 0 && kinds.insert(row.kind).second) << row.prefix;
    EXPECT_EQ(IsDefKind(row.kind), OpensScope(row.kind) && row.kind != kClassKind) << row.prefix;
  }
  for (const BytesView plain : {"", "x", ":", "x:s", " :s"}) {
    EXPECT_EQ(GetInfoBytesKind(plain), kPlainEquivKind) << plain;
  }
}

// "kind body scope url line" of each item.
TEST(Items, AreReadWithTheirContextAndLine) {
  const std::pair<BytesView, BytesView> rows[] = {
      {"", ""},
      {"x;:s3;:lint;", "= x - - 0|s 3 - - 3|l int - - 3|=  - - 3|"},
      {":s3;:s-1;:A0;:w7;:e(a;:s9)", "s 3 - - 3|s -1 - - 0|A 0 - - 0|w 7 - - 7|e (a;:s9) - - 7|"},
      {":SC.m x;:S :@", "= x C.m - 0|@   - 0|"},
      {":Uf:/a%20b :SC :s2;:A1", "s 2 C f:/a b 2|A 1 - - 2|"},
      {":Uf:/a :SC :SC.m :Cx", "C x C.m f:/a 0|"},  // the innermost context
      {":SC :Uf:/a y;:SC;:U", "= y - f:/a 0|S C - - 0|U  - - 0|"},
      {":s99999999999;:sx;:", "s 99999999999 - - 0|s x - - 0|= : - - 0|"},
  };
  for (const auto& [value, expected] : rows) {
    Bytes read;
    for (const CInfoItem& item : ItemsOf(value)) {
      read += Bytes(1, item.kind) + " " + Bytes(item.body) + " " + Bytes(item.scope.value_or("-")) +
              " " + (item.url ? DecodeUrl(*item.url) : "-") + " " +
              std::to_string(item.line.value_or(0)) + "|";
      EXPECT_TRUE(HasKind(value, item.kind)) << value;
    }
    EXPECT_EQ(read, expected) << value;
  }
  EXPECT_FALSE(HasKind("data[:n]", kNonlocalKind)) << "a slice, not a mark";
}

TEST(Items, BodiesComeApart) {
  Bytes arguments;
  ForEachArgument("self,a,/,b=,*,*r,**k", [&](const CArgument& argument) {
    arguments += std::to_string(static_cast<int>(argument.form)) + Bytes(argument.name) +
                 (argument.has_default ? "=" : "") + " ";
  });
  EXPECT_EQ(arguments, "0self 0a 4 0b= 3 1r 2k ");
  Bytes bases;
  ForEachClassArgument("a.B[x=1],metaclass=M(a,b),c==d,*e", [&](const CClassArgument& argument) {
    bases += Bytes(argument.keyword) + ":" + Bytes(argument.expression) + " ";
  });
  EXPECT_EQ(bases, ":a.B[x=1] metaclass:M(a,b) :c==d :*e ");
  EXPECT_EQ(ReadDefinition("C.m(a,b)").inside, "a,b");
  EXPECT_EQ(ReadDefinition("C").scope, "C");
  EXPECT_EQ(ReadDefinition("C)x(y").inside, "y") << "damaged";
  EXPECT_EQ(ReadImport(kFromImportKind, ".m *")->name, "*");
  EXPECT_EQ(ReadImport(kImportAsNameKind, "a.b x")->bound, "x");
  EXPECT_FALSE(ReadImport(kFromImportKind, "m")) << "damaged";
  EXPECT_EQ(DottedPart("a.b[int]"), "a.b");
  EXPECT_EQ(DottedPart("a+b"), "");
}

TEST(ScopeNames, ComeApartAndTogether) {
  struct {
    TextView scope, parent, leaf, without_indices;
    bool is_instance;
  } const rows[] = {{"f", "", "f", "f", false},
                    {"Outer#2.f#3", "Outer#2", "f#3", "Outer.f", false},
                    {"a.C:", "a", "C:", "a.C:", true},
                    {"a#2.C#12:", "a#2", "C#12:", "a.C:", true},
                    {"a.b.<lambda>", "a.b", "<lambda>", "a.b.<lambda>", false},
                    {"C:.x", "C:", "x", "C:.x", false}};
  for (const auto& row : rows) {
    EXPECT_EQ(ParentScopeName(row.scope), row.parent) << row.scope;
    EXPECT_EQ(ParentAndLeafScopeNames(row.scope), std::pair(row.parent, row.leaf)) << row.scope;
    EXPECT_EQ(RemoveAllScopeIndicies(row.scope), row.without_indices) << row.scope;
    EXPECT_EQ(IsInstanceScope(row.scope), row.is_instance) << row.scope;
    EXPECT_FALSE(IsTopLevelModuleScope(row.scope)) << row.scope;
  }
  EXPECT_TRUE(IsTopLevelModuleScope(kModuleScopeName));
  EXPECT_EQ(ParentScopeName(""), std::nullopt);
  EXPECT_EQ(ParentAndLeafScopeNames(""), std::pair(TextView(), TextView()));
  EXPECT_EQ(RemoveAllScopeIndicies(""), "");
  EXPECT_EQ(GetInstanceNameForClass("a.C"), "a.C:");
}

TEST(InfoBytes, SplitOutsideNesting) {
  const std::pair<BytesView, Pieces> rows[] = {
      {"", {}},
      {"a", {"a"}},
      {"a;;b", {"a", "", "b"}},
      {";", {"", ""}},
      {"f(a;b);c", {"f(a;b)", "c"}},
      {"[(;];{;}", {"[(;];{;}"}},        // three opened, two closed
      {"[(;]);x", {"[(;])", "x"}},       // one depth for all brackets
      {");a;(b;c", {")", "a", "(b;c"}},  // never below zero
  };
  for (const auto& [ibytes, pieces] : rows) {
    EXPECT_EQ(NonNestedSplit(ibytes, ';'), pieces) << ibytes;
  }
  EXPECT_THAT(NonNestedSplit("a,b(c,d)", ','), ElementsAre("a", "b(c,d)"));
}

TEST(InfoBytes, JoinWithoutDoubles) {
  struct {
    BytesView a, b, joined, why;
  } const rows[] = {
      {"", "", "", "nothing"},
      {"", "b;b", "b;b", "b as it is"},
      {"a;a", "", "a;a", "a as it is"},
      {"a", "b;a;c", "a;b;c", "in the order of b"},
      {"a", "b;b", "a;b", "an item of the result is also one of b's own"},
      {"x(a;b)", "a;x(a;b)", "x(a;b);a", "by items, not by text"},
      {"a", "ab;", "a;ab;", "an empty item is an item"},
  };
  for (const auto& row : rows) {
    EXPECT_EQ(JoinInfoBytes(row.a, row.b), row.joined) << row.why;
  }
}

TEST(InfoBytes, AreBuiltAndQualified) {
  CLocationCache cache;
  EXPECT_EQ(PrefixWithLocationAndScope(":lint", nullptr, "C.m"), ":SC.m :lint");
  EXPECT_EQ(PrefixWithLocationAndScope("x", cache.GetLocation("file:///a;b"), ""),
            ":Ufile:///a%3Bb :S x");
  EXPECT_EQ(gInfoBytesBuilder.SetInfo(-1), ":s-1");
  EXPECT_EQ(gInfoBytesBuilder.FromImportInfo(".", "m"), ":f. m");
}

}  // namespace
}  // namespace pysource
