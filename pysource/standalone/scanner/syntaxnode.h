// The nodes that a parsed source is made of: see syntaxtree.h.
#pragma once

#include <cstdint>

namespace pysource::standalone {

// What the scanner tells apart; the names of the grammar, in its order of subjects.
enum class Tag : uint8_t {
  kOther,
  kError,  // source that fits no rule; its children do
  kModule,
  kBlock,
  // statements
  kImport,
  kImportFrom,
  kFutureImport,
  kAssignment,
  kAugmented,
  kDelete,
  kGlobal,
  kNonlocal,
  kTypeAlias,
  kReturn,
  kFor,
  kExcept,
  kExceptGroup,
  kCase,
  kFunction,
  kClass,
  kDecorated,
  // their parts
  kDottedName,
  kRelativeImport,
  kAliasedImport,
  kWildcardImport,
  kDecorator,
  kParameters,
  kLambdaParameters,
  kTypeParameters,
  kArguments,
  kKeywordArgument,
  kDefaultParameter,
  kTypedParameter,
  kTypedDefaultParameter,
  kStarSeparator,   // "*" between parameters
  kSlashSeparator,  // "/"
  kType,
  kConstrainedType,
  kPair,
  // targets and patterns
  kTuplePattern,
  kListPattern,
  kPatternList,
  kListSplatPattern,
  kDictionarySplatPattern,
  kAsPattern,
  kAsPatternTarget,
  kCasePattern,
  kSplatPattern,
  kKeywordPattern,
  kClassPattern,
  // expressions
  kIdentifier,
  kAttribute,
  kSubscript,
  kCall,
  kLambda,
  kListComprehension,
  kSetComprehension,
  kDictionaryComprehension,
  kGenerator,
  kForIn,
  kNamed,
  kYield,
  kConditional,
  kBoolean,
  kUnary,
  kParenthesized,
  kExpressionList,
  kListSplat,
  kDictionarySplat,
  kTuple,
  kList,
  kSet,
  kDictionary,
  kString,
  kConcatenatedString,
  kInteger,
  kFloat,
  kTrue,
  kFalse,
  kNone,
  kEllipsis,
  kInterpolation,
};

using NodeIndex = uint32_t;
inline constexpr NodeIndex kNoNode = 0xFFFFFFFF;

struct CNode {
  uint32_t begin;  // in bytes
  uint32_t end;
  NodeIndex next;  // of the first node that is not below this one
  uint32_t row;    // counted from 0
  Tag tag;
  // Room for whoever walks the list; 0 at first.
  uint8_t mark;
};

}  // namespace pysource::standalone
