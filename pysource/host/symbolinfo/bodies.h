// The parts of the bodies that have parts: imports, definitions with their arguments, classes with
// their bases and keywords. All are views into the body.
#pragma once

#include <optional>

#include "pysource/host/symbolinfo/infobytes.h"
#include "pysource/host/text.h"

namespace pysource {

// What an import says. Of the two names one is there at most.
struct CImportBody {
  TextView module;  // dotted, with leading dots where it is relative
  TextView name;    // what is taken from the module, "*" for all; empty for an import of the module
  TextView bound;   // of "import a.b as x" the x
};
// Absent for the body of another kind, and for an import that lacks its second part.
std::optional<CImportBody> ReadImport(Kind kind, BytesView body);

// The body of a definition or class: "C.m" and "self,x" of "C.m(self,x)".
struct CDefinitionBody {
  TextView scope;    // that it opens; all of the body where there is no bracket
  BytesView inside;  // the text between its brackets
};
CDefinitionBody ReadDefinition(BytesView body);

// An argument of a definition, as the source has it.
struct CArgument {
  enum class EForm {
    kPlain,
    kRest,          // *name
    kKeywordRest,   // **name
    kKeywordsOnly,  // a bare *: the arguments behind it are given by name
    kPositionsOnly  // a /: the arguments before it are given by position
  };
  TextView name;  // without stars; empty for a bare * and a /
  EForm form = EForm::kPlain;
  bool has_default = false;
};
CArgument ReadArgument(BytesView argument);

// Calls `visit` with each argument of CDefinitionBody::inside.
template <class Visit>
void ForEachArgument(BytesView inside, Visit&& visit) {
  ForEachNonNested(inside, ',', [&](BytesView argument) { visit(ReadArgument(argument)); });
}

// What stands between the brackets of a class: a base, or a keyword with its value.
struct CClassArgument {
  TextView keyword;  // empty for a base
  BytesView expression;
};
CClassArgument ReadClassArgument(BytesView argument);

// Calls `visit` with each base and keyword of CDefinitionBody::inside.
template <class Visit>
void ForEachClassArgument(BytesView inside, Visit&& visit) {
  ForEachNonNested(inside, ',', [&](BytesView argument) { visit(ReadClassArgument(argument)); });
}

// "a.b" of "a.b[int]" and of "a.b(c)": what is subscripted or called. Empty where that is no dotted
// name.
TextView DottedPart(TextView expression);

}  // namespace pysource
