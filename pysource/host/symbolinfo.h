// The vocabulary of scope names and info bytes: every prefix, kind byte and scope suffix of the
// system, and the functions that take them apart. Nothing else may spell one.
//
// Info bytes say what a name can be. A value is a list of alternatives separated by ";" at nesting
// depth zero; an item is a prefix (":" and the kind byte) and a body, or a plain dotted name
// without any prefix. "line" below is a line number in decimal.
//
//   form                   prefix  body                                        example
//   set                    :s      line of the binding, -1 for none            :s12
//   get                    :g      line of the use                             :g14
//   set of a type hint     :h      line                                        :h3
//   nonlocal               :n      empty                                       :n
//   global                 :G      empty                                       :G
//   within an expression   :w      line                                        :w7
//   import                 :i      dotted module name                          :ios.path
//   from-import            :f      module, one space, name                     :fos path
//   import as name         :a      dotted module name, one space, bound name   :anumpy np
//   decorator              :d      the decorator's dotted expression           :dstaticmethod
//   specific scope         :S      scope name, one space, the item             :SC.m :lint
//   specific URL           :U      encoded URL, one space, the item            :Ufile:///a.py :SC x
//   builtin module         :B      name in the builtins module                 :Blen
//   typing module          :T      name in the typing module                   :TAny
//   builtin class          :b      name of the builtin class                   :bstr
//   typed literal          :l      builtin class name of the literal           :lint
//   argument               :A      position of the argument                    :A0
//   type hint              :t      the annotation, white space as below        :tlist[int]
//   plain equivalence      (none)  a dotted name                               a.b
//   expression             :e      the expression, white space as below        :ea+b
//   method                 :m      scope of the body, "(", arguments, ")"      :mC.m(self,x)
//   unbound method         :u      as method (static or class method)          :uC.make(cls)
//   function               :F      as method                                   :Ff(a,/,b=,*,c)
//   class                  :c      scope of the body, "(", bases, keywords, ")"  :cC(B,metaclass=M)
//   self                   :@      empty                                       :@
//   instance               :I      scope name of the class                     :IC
//   module                 :M      dotted module name                          :Mpkg.mod
//   inferred type hint     :H      as type hint                                :Hint
//   called                 :C      the called expression, white space as below :Copen
//
// White space (comments and line breaks count as such) is dropped from a text of the source, but
// for one space between two characters that can stand in a name: "d in e", "not c", "a+b". Strings
// keep theirs. Arguments are names, with "*" or "**" before those that take the rest and "=" behind
// those that have a default; a bare "*" and "/" stand where the source has them. The bases of a
// class are the items without a "=" outside of brackets.
//
// Names that no variable can have hold what a scope says beyond its names: "*" its star imports,
// "return" its return hint and the values that it returns, "yield" those that it yields (each after
// ":w" and its line), and "import" the imports that a query of all imports would miss under the
// names that they bind ("import a.b as x", a name that a class has too).
#pragma once

#include <cstdint>
#include <optional>
#include <utility>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/text.h"

namespace pysource {

using Kind = char;

inline constexpr size_t kPrefixLen = 2;

inline constexpr Kind kSetKind = 's';
inline constexpr Kind kGetKind = 'g';
inline constexpr Kind kSetTypeHintKind = 'h';
inline constexpr Kind kNonlocalKind = 'n';
inline constexpr Kind kGlobalKind = 'G';
inline constexpr Kind kWithinExprKind = 'w';
inline constexpr Kind kImportKind = 'i';
inline constexpr Kind kFromImportKind = 'f';
inline constexpr Kind kImportAsNameKind = 'a';
inline constexpr Kind kDecoratorKind = 'd';
inline constexpr Kind kSpecificScopeKind = 'S';
inline constexpr Kind kSpecificUrlKind = 'U';
inline constexpr Kind kBuiltinModuleKind = 'B';
inline constexpr Kind kTypingModuleKind = 'T';
inline constexpr Kind kBuiltinClassKind = 'b';
inline constexpr Kind kTypedLiteralKind = 'l';
inline constexpr Kind kArgKind = 'A';
inline constexpr Kind kTypeHintKind = 't';
inline constexpr Kind kPlainEquivKind = '=';
inline constexpr Kind kExpressionEquivKind = 'e';
inline constexpr Kind kMethodKind = 'm';
inline constexpr Kind kUnboundMethodKind = 'u';
inline constexpr Kind kFunctionKind = 'F';
inline constexpr Kind kClassKind = 'c';
inline constexpr Kind kSelfKind = '@';
inline constexpr Kind kInstanceKind = 'I';
inline constexpr Kind kModuleKind = 'M';
inline constexpr Kind kInferredTypeHintKind = 'H';
inline constexpr Kind kCalledKind = 'C';

inline constexpr BytesView kSetPrefix = ":s";
inline constexpr BytesView kGetPrefix = ":g";
inline constexpr BytesView kSetTypeHintPrefix = ":h";
inline constexpr BytesView kNonlocalPrefix = ":n";
inline constexpr BytesView kGlobalPrefix = ":G";
inline constexpr BytesView kWithinExprPrefix = ":w";
inline constexpr BytesView kImportPrefix = ":i";
inline constexpr BytesView kFromImportPrefix = ":f";
inline constexpr BytesView kImportAsNamePrefix = ":a";
inline constexpr BytesView kDecoratorPrefix = ":d";
inline constexpr BytesView kSpecificScopePrefix = ":S";
inline constexpr BytesView kSpecificUrlPrefix = ":U";
inline constexpr BytesView kBuiltinModulePrefix = ":B";
inline constexpr BytesView kTypingModulePrefix = ":T";
inline constexpr BytesView kBuiltinClassPrefix = ":b";
inline constexpr BytesView kTypedLiteralPrefix = ":l";
inline constexpr BytesView kArgPrefix = ":A";
inline constexpr BytesView kTypeHintPrefix = ":t";
// No item starts with this one: a plain item has no prefix at all.
inline constexpr BytesView kPlainEquivSpec = ":=";
inline constexpr BytesView kExpressionEquivPrefix = ":e";
inline constexpr BytesView kMethodPrefix = ":m";
inline constexpr BytesView kUnboundMethodPrefix = ":u";
inline constexpr BytesView kFunctionPrefix = ":F";
inline constexpr BytesView kClassPrefix = ":c";
inline constexpr BytesView kSelfPrefix = ":@";
inline constexpr BytesView kInstancePrefix = ":I";
inline constexpr BytesView kModulePrefix = ":M";
inline constexpr BytesView kInferredTypeHintPrefix = ":H";
inline constexpr BytesView kCalledPrefix = ":C";

// Marks the scope of a class's instance attributes: "a.C:" beside the class scope "a.C".
inline constexpr TextView kClassInstanceSuffix = ":";
inline constexpr TextView kClassInstSuffix = ":";
inline constexpr TextView kIterationSubscript = "[*]";
inline constexpr TextView kTypingModuleSymbol = "typing";
inline constexpr TextView kTypingModuleSymbolDot = "typing.";
inline constexpr TextView kTypingModuleSymbolDotAny = "typing.Any";
// Between a name and the number of its definition: "f#2" is the second f of its scope.
inline constexpr TextView kScopeIndexSep = "#";
// The top-level scope of a module.
inline constexpr TextView kModuleScopeName = "";
// Stands for all scopes of a file.
inline constexpr TextView kWildcardScope = "*";
// The scope that the record of an implicit package was "scanned" from.
inline constexpr TextView kPackageDirScope = "<package>";
// Names that no variable can have: what a scope says beyond its names.
inline constexpr TextView kStarImportsName = "*";
inline constexpr TextView kReturnName = "return";
inline constexpr TextView kYieldName = "yield";
inline constexpr TextView kImportName = "import";
// Separates the alternatives of an info-bytes value.
inline constexpr char kInfoBytesSep = ';';

// The kind of the item that starts at `ibytes`: its kind byte, or kPlainEquivKind when it does not
// start with ":" and a further byte.
constexpr Kind GetInfoBytesKind(BytesView ibytes) {
  return ibytes.size() >= kPrefixLen && ibytes[0] == ':' ? ibytes[1] : kPlainEquivKind;
}

// Whether the kind is that of a line, which the items behind it belong to.
constexpr bool IsLineKind(Kind kind) {
  return kind == kSetKind || kind == kGetKind || kind == kSetTypeHintKind ||
         kind == kWithinExprKind;
}

// Whether the kind is that of a definition with a body and arguments.
constexpr bool IsDefKind(Kind kind) {
  return kind == kFunctionKind || kind == kMethodKind || kind == kUnboundMethodKind;
}

// Whether a variable can have the name.
constexpr bool IsVariableName(TextView name) {
  return name != kStarImportsName && name != kReturnName && name != kYieldName &&
         name != kImportName;
}

constexpr bool IsTopLevelModuleScope(TextView scope) { return scope.empty(); }
constexpr bool IsInstanceScope(TextView scope) { return scope.ends_with(kClassInstSuffix); }

// The text before the last "."; the module scope for a name without one; absent for the module
// scope.
std::optional<TextView> ParentScopeName(TextView scope);
// The text before and after the last "."; ("", scope) for a name without one.
std::pair<TextView, TextView> ParentAndLeafScopeNames(TextView scope);
// "Outer#2.f#3" becomes "Outer.f": each component is cut at its first "#"; an instance suffix
// stays.
Text RemoveAllScopeIndicies(TextView scope);
Text GetInstanceNameForClass(TextView scope);

// Calls `visit` with a view of each piece of `s` between separators at nesting depth zero. Round,
// square and curly brackets count together as one depth, which never goes below zero. Empty input
// has no pieces; otherwise there is one more piece than there are separators, empty ones included.
template <class Visit>
void ForEachNonNested(BytesView s, char sep, Visit&& visit) {
  if (s.empty()) {
    return;
  }
  size_t depth = 0;
  size_t start = 0;
  for (size_t i = 0; i < s.size(); ++i) {
    const char c = s[i];
    if (c == '(' || c == '[' || c == '{') {
      ++depth;
    } else if (c == ')' || c == ']' || c == '}') {
      depth -= depth != 0 ? 1 : 0;
    } else if (c == sep && depth == 0) {
      visit(s.substr(start, i - start));
      start = i + 1;
    }
  }
  visit(s.substr(start));
}

// The pieces as views into `s`.
std::vector<BytesView> NonNestedSplit(BytesView s, char sep);

// `b` when `a` is empty, `a` when `b` is empty; otherwise `a` followed by those items of `b` that
// are not an item of the result yet, in their order, each after a ";".
Bytes JoinInfoBytes(BytesView a, BytesView b);

// `ibytes` qualified with the scope that it is meant in and, if `loc` is not absent, the file.
Bytes PrefixWithLocationAndScope(BytesView ibytes, Loc loc, TextView scope);

// Makes info bytes of single items.
class CInfoBytesBuilder {
 public:
  virtual ~CInfoBytesBuilder() = default;
  // A binding in line `n`; -1 for one without a line.
  virtual Bytes SetInfo(int64_t n) const;
  virtual Bytes FromImportInfo(BytesView module, BytesView name) const;
};

extern const CInfoBytesBuilder gInfoBytesBuilder;

}  // namespace pysource
