// The vocabulary of scope names and info bytes.

#include "pysource/host/symbolinfo.h"

#include <gmock/gmock.h>
#include <gtest/gtest.h>

#include <set>
#include <utility>
#include <vector>

#include "pysource/host/location.h"

namespace pysource {
namespace {

using testing::ElementsAre;
using Pieces = std::vector<BytesView>;

TEST(Kinds, EachHasItsPrefixAndNoTwoAreAlike) {
  const std::pair<BytesView, Kind> rows[] = {{kSetPrefix, kSetKind},
                                             {kGetPrefix, kGetKind},
                                             {kSetTypeHintPrefix, kSetTypeHintKind},
                                             {kNonlocalPrefix, kNonlocalKind},
                                             {kGlobalPrefix, kGlobalKind},
                                             {kWithinExprPrefix, kWithinExprKind},
                                             {kImportPrefix, kImportKind},
                                             {kFromImportPrefix, kFromImportKind},
                                             {kImportAsNamePrefix, kImportAsNameKind},
                                             {kDecoratorPrefix, kDecoratorKind},
                                             {kSpecificScopePrefix, kSpecificScopeKind},
                                             {kSpecificUrlPrefix, kSpecificUrlKind},
                                             {kBuiltinModulePrefix, kBuiltinModuleKind},
                                             {kTypingModulePrefix, kTypingModuleKind},
                                             {kBuiltinClassPrefix, kBuiltinClassKind},
                                             {kTypedLiteralPrefix, kTypedLiteralKind},
                                             {kArgPrefix, kArgKind},
                                             {kTypeHintPrefix, kTypeHintKind},
                                             {kPlainEquivSpec, kPlainEquivKind},
                                             {kExpressionEquivPrefix, kExpressionEquivKind},
                                             {kMethodPrefix, kMethodKind},
                                             {kUnboundMethodPrefix, kUnboundMethodKind},
                                             {kFunctionPrefix, kFunctionKind},
                                             {kClassPrefix, kClassKind},
                                             {kSelfPrefix, kSelfKind},
                                             {kInstancePrefix, kInstanceKind},
                                             {kModulePrefix, kModuleKind},
                                             {kInferredTypeHintPrefix, kInferredTypeHintKind},
                                             {kCalledPrefix, kCalledKind}};
  std::set<Kind> kinds;
  for (const auto& [prefix, kind] : rows) {
    EXPECT_EQ(prefix.size(), kPrefixLen);
    EXPECT_EQ(GetInfoBytesKind(prefix), kind) << prefix;
    EXPECT_EQ(GetInfoBytesKind(Bytes(prefix) + "body;:x"), kind) << prefix;
    EXPECT_TRUE(kind != 0 && kinds.insert(kind).second) << prefix;
    EXPECT_EQ(IsDefKind(kind), prefix == ":F" || prefix == ":m" || prefix == ":u") << prefix;
  }
  for (const BytesView plain : {"", "x", ":", "x:s", " :s"}) {
    EXPECT_EQ(GetInfoBytesKind(plain), kPlainEquivKind) << plain;
  }
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
