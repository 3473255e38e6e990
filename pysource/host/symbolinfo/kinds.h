// The table of kinds: all that the code knows of a kind stands in its row. To add one, add a row,
// have the scanner write it (the table at the head of scanner.cc), and raise the scanner's version.
//
// A line is a line number in decimal, a scope a scope name. White space (comments and line breaks
// count as such) is dropped from a text of the source, but for one space between two characters
// that can stand in a name: "d in e", "not c", "a+b". Strings keep theirs. Arguments are names,
// with "*" or "**" before those that take the rest and "=" behind those that have a default; a bare
// "*" and "/" stand where the source has them. bodies.h takes bodies apart.
#pragma once

#include <array>
#include <cstdint>

#include "pysource/host/symbolinfo/infobytes.h"

namespace pysource {

// What an item of the kind does for the name that it stands under.
enum KindTraits : uint8_t {
  kIsLine = 1,        // its body is the line that the items behind it belong to
  kBinds = 2,         // it binds the name, in that line or to what it says
  kOpensScope = 4,    // its body begins with the scope of a definition or class
  kMeansTheSame = 8,  // it means the same in every scope and file, so it needs no context
};

// ROW(name, letter, words for a person, traits, body, example). A row Set is kSetKind and kSetPrefix.
//
// clang-format off
#define PYSOURCE_KINDS(ROW) \
  ROW(Set,              's', "set",            kIsLine | kBinds,       "line of the binding, -1 for none", ":s12") \
  ROW(Get,              'g', "used",           kIsLine,                "line of the use",                  ":g14") \
  ROW(SetTypeHint,      'h', "hint only",      kIsLine | kBinds,       "line",                             ":h3") \
  ROW(Nonlocal,         'n', "nonlocal",       0,                      "",                                 ":n") \
  ROW(Global,           'G', "global",         0,                      "",                                 ":G") \
  ROW(WithinExpr,       'w', "in expression",  kIsLine,                "line",                             ":w7") \
  ROW(Import,           'i', "import",         kBinds,                 "module",                           ":ios.path") \
  ROW(FromImport,       'f', "import",         kBinds,                 "module, space, name",              ":fos path") \
  ROW(ImportAsName,     'a', "import",         kBinds,                 "module, space, bound name",        ":anumpy np") \
  ROW(Decorator,        'd', "decorator",      0,                      "dotted expression",                ":dstaticmethod") \
  ROW(SpecificScope,    'S', "name",           0,                      "scope, space, item",               ":SC.m :A0") \
  ROW(SpecificUrl,      'U', "name",           kMeansTheSame,          "encoded URL, space, item",         ":Ufile:///a.py :SC x") \
  ROW(BuiltinModule,    'B', "builtin",        kBinds,                 "name in builtins",                 ":Blen") \
  ROW(TypingModule,     'T', "typing",         kBinds,                 "name in typing",                   ":TAny") \
  ROW(BuiltinClass,     'b', "builtin class",  kBinds | kMeansTheSame, "name of the class",                ":bstr") \
  ROW(TypedLiteral,     'l', "literal",        kBinds | kMeansTheSame, "builtin class of the literal",     ":lint") \
  ROW(Arg,              'A', "argument",       kBinds,                 "position",                         ":A0") \
  ROW(TypeHint,         't', "type hint",      kBinds,                 "annotation",                       ":tlist[int]") \
  ROW(ExpressionEquiv,  'e', "expression",     kBinds,                 "expression",                       ":ea+b") \
  ROW(Method,           'm', "method",         kBinds | kOpensScope,   "scope(arguments)",                 ":mC.m(self,x)") \
  ROW(UnboundMethod,    'u', "unbound method", kBinds | kOpensScope,   "of a static or class method",      ":uC.make(cls)") \
  ROW(Function,         'F', "function",       kBinds | kOpensScope,   "scope(arguments)",                 ":Ff(a,/,b=,*,c)") \
  ROW(Class,            'c', "class",          kBinds | kOpensScope,   "scope(bases, keywords)",           ":cC(Base,metaclass=M)") \
  ROW(Self,             '@', "self",           kBinds,                 "",                                 ":@") \
  ROW(Instance,         'I', "instance",       kBinds,                 "scope of the class",               ":IC") \
  ROW(Module,           'M', "module",         kBinds,                 "module",                           ":Mpkg.mod") \
  ROW(InferredTypeHint, 'H', "inferred type",  kBinds,                 "annotation",                       ":Hint") \
  ROW(Called,           'C', "call of",        kBinds,                 "called expression",                ":Copen")
// clang-format on

#define PYSOURCE_KIND_CONSTANTS(name, letter, ...)             \
  inline constexpr Kind k##name##Kind = letter;                \
  inline constexpr char k##name##Mark[] = {':', letter, '\0'}; \
  inline constexpr BytesView k##name##Prefix{k##name##Mark, kPrefixLen};
PYSOURCE_KINDS(PYSOURCE_KIND_CONSTANTS)
#undef PYSOURCE_KIND_CONSTANTS

struct CKindRow {
  Kind kind;
  BytesView prefix;
  const char* words;
  uint8_t traits;
  const char* body;     // what stands behind the prefix
  const char* example;  // of an item
};

#define PYSOURCE_KIND_ROW(name, letter, ...) {k##name##Kind, k##name##Prefix, __VA_ARGS__},
inline constexpr CKindRow kKinds[] = {
    PYSOURCE_KINDS(PYSOURCE_KIND_ROW)
    // A plain item has no prefix; infobytes.h has its constants.
    {kPlainEquivKind, kPlainEquivSpec, "same as", kBinds, "dotted name", "a.b"},
};
#undef PYSOURCE_KIND_ROW
#undef PYSOURCE_KINDS

// The traits of the kind; none for a byte that is no kind.
constexpr uint8_t TraitsOf(Kind kind) {
  constexpr auto kTraits = [] {
    std::array<uint8_t, 256> traits{};
    for (const CKindRow& row : kKinds) {
      traits[static_cast<unsigned char>(row.kind)] = row.traits;
    }
    return traits;
  }();
  return kTraits[static_cast<unsigned char>(kind)];
}
constexpr bool IsLineKind(Kind kind) { return (TraitsOf(kind) & kIsLine) != 0; }
constexpr bool Binds(Kind kind) { return (TraitsOf(kind) & kBinds) != 0; }
constexpr bool OpensScope(Kind kind) { return (TraitsOf(kind) & kOpensScope) != 0; }
constexpr bool MeansTheSameEverywhere(Kind kind) { return (TraitsOf(kind) & kMeansTheSame) != 0; }
// Whether the kind is that of a definition with a body and arguments.
constexpr bool IsDefKind(Kind kind) {
  return kind == kFunctionKind || kind == kMethodKind || kind == kUnboundMethodKind;
}

// "class", "function", ...: the words for a person; "name" for a byte that is no kind.
constexpr const char* KindWords(Kind kind) {
  for (const CKindRow& row : kKinds) {
    if (row.kind == kind) {
      return row.words;
    }
  }
  return "name";
}

}  // namespace pysource
