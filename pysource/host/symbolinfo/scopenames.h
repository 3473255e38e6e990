// Names of scopes. A name is dotted, relative to its file; the module scope has the empty name. The
// second definition of a name in one scope is "f#2", the scope of the instance attributes of class
// "a.C" is "a.C:". And the names in a scope that are no variables.
#pragma once

#include <optional>
#include <utility>

#include "pysource/host/text.h"

namespace pysource {

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

// Names that no variable can have hold what a scope says beyond its names: "*" its star imports,
// "return" its return hint and the values that it returns, "yield" those that it yields (each after
// ":w" and its line), and "import" the imports that a query of all imports would miss under the
// names that they bind ("import a.b as x", a name that a class has too).
inline constexpr TextView kStarImportsName = "*";
inline constexpr TextView kReturnName = "return";
inline constexpr TextView kYieldName = "yield";
inline constexpr TextView kImportName = "import";

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

}  // namespace pysource
