#include "pysource/standalone/scanner/syntaxtree.h"

#include <tree_sitter/api.h>

#include <algorithm>
#include <array>
#include <memory>

#include "pysource/host/errors.h"

extern "C" const TSLanguage* tree_sitter_python(void);

namespace pysource::standalone {
namespace {

constexpr TSSymbol kErrorSymbol = static_cast<TSSymbol>(-1);

// What is left out with everything below it. Not a Tag, so that no reader of the list meets it.
constexpr Tag kDropped = static_cast<Tag>(0xFF);

struct CTagName {
  TextView name;
  Tag tag;
};

constexpr std::array kTagNames = std::to_array<CTagName>({
    {"module", Tag::kModule},
    {"block", Tag::kBlock},
    {"import_statement", Tag::kImport},
    {"import_from_statement", Tag::kImportFrom},
    {"future_import_statement", Tag::kFutureImport},
    {"assignment", Tag::kAssignment},
    {"augmented_assignment", Tag::kAugmented},
    {"delete_statement", Tag::kDelete},
    {"global_statement", Tag::kGlobal},
    {"nonlocal_statement", Tag::kNonlocal},
    {"type_alias_statement", Tag::kTypeAlias},
    {"for_statement", Tag::kFor},
    {"except_clause", Tag::kExcept},
    {"except_group_clause", Tag::kExceptGroup},
    {"case_clause", Tag::kCase},
    {"function_definition", Tag::kFunction},
    {"class_definition", Tag::kClass},
    {"decorated_definition", Tag::kDecorated},
    {"dotted_name", Tag::kDottedName},
    {"relative_import", Tag::kRelativeImport},
    {"aliased_import", Tag::kAliasedImport},
    {"wildcard_import", Tag::kWildcardImport},
    {"decorator", Tag::kDecorator},
    {"parameters", Tag::kParameters},
    {"lambda_parameters", Tag::kLambdaParameters},
    {"type_parameter", Tag::kTypeParameters},
    {"argument_list", Tag::kArguments},
    {"keyword_argument", Tag::kKeywordArgument},
    {"default_parameter", Tag::kDefaultParameter},
    {"typed_parameter", Tag::kTypedParameter},
    {"typed_default_parameter", Tag::kTypedDefaultParameter},
    {"type", Tag::kType},
    {"constrained_type", Tag::kConstrainedType},
    {"pair", Tag::kPair},
    {"tuple_pattern", Tag::kTuplePattern},
    {"list_pattern", Tag::kListPattern},
    {"pattern_list", Tag::kPatternList},
    {"list_splat_pattern", Tag::kListSplatPattern},
    {"dictionary_splat_pattern", Tag::kDictionarySplatPattern},
    {"as_pattern", Tag::kAsPattern},
    {"as_pattern_target", Tag::kAsPatternTarget},
    {"case_pattern", Tag::kCasePattern},
    {"splat_pattern", Tag::kSplatPattern},
    {"keyword_pattern", Tag::kKeywordPattern},
    {"class_pattern", Tag::kClassPattern},
    {"identifier", Tag::kIdentifier},
    {"attribute", Tag::kAttribute},
    {"subscript", Tag::kSubscript},
    {"call", Tag::kCall},
    {"lambda", Tag::kLambda},
    {"list_comprehension", Tag::kListComprehension},
    {"set_comprehension", Tag::kSetComprehension},
    {"dictionary_comprehension", Tag::kDictionaryComprehension},
    {"generator_expression", Tag::kGenerator},
    {"for_in_clause", Tag::kForIn},
    {"named_expression", Tag::kNamed},
    {"conditional_expression", Tag::kConditional},
    {"boolean_operator", Tag::kBoolean},
    {"unary_operator", Tag::kUnary},
    {"parenthesized_expression", Tag::kParenthesized},
    {"expression_list", Tag::kExpressionList},
    {"list_splat", Tag::kListSplat},
    {"tuple", Tag::kTuple},
    {"list", Tag::kList},
    {"set", Tag::kSet},
    {"dictionary", Tag::kDictionary},
    {"string", Tag::kString},
    {"concatenated_string", Tag::kConcatenatedString},
    {"integer", Tag::kInteger},
    {"float", Tag::kFloat},
    {"true", Tag::kTrue},
    {"false", Tag::kFalse},
    {"none", Tag::kNone},
    {"ellipsis", Tag::kEllipsis},
    {"interpolation", Tag::kInterpolation},
    {"format_expression", Tag::kInterpolation},
    {"comment", kDropped},
    {"line_continuation", kDropped},
    {"string_start", kDropped},
    {"string_content", kDropped},
    {"string_end", kDropped},
    {"escape_sequence", kDropped},
    {"escape_interpolation", kDropped},
    {"type_conversion", kDropped},
    {"import_prefix", kDropped},
    {"keyword_separator", kDropped},
    {"positional_separator", kDropped},
});

std::vector<Tag> MakeTags(const TSLanguage* language) {
  std::vector<Tag> tags(ts_language_symbol_count(language), kDropped);
  for (size_t symbol = 0; symbol < tags.size(); ++symbol) {
    const auto id = static_cast<TSSymbol>(symbol);
    if (ts_language_symbol_type(language, id) != TSSymbolTypeRegular) {
      continue;
    }
    const TextView name = ts_language_symbol_name(language, id);
    const auto* const found = std::find_if(kTagNames.begin(), kTagNames.end(),
                                           [&](const CTagName& t) { return t.name == name; });
    tags[symbol] = found != kTagNames.end() ? found->tag : Tag::kOther;
  }
  return tags;
}

struct CTreeDeleter {
  void operator()(TSTree* tree) const { ts_tree_delete(tree); }
};

// The parser is given up after this time: where much is wrong in one statement, recovering from
// each error costs time in proportion to all of them. A hundred times what it takes for code that
// is merely long, so that a busy machine or a sanitizer does not matter.
constexpr uint64_t kMostMicroseconds = 10'000'000;
constexpr uint64_t kMostMicrosecondsPerByte = 25;

// More nodes than this are given back after a file, so that one huge file does not hold its memory
// for good: 20 MB.
constexpr size_t kMostNodesKept = size_t{1} << 20;

}  // namespace

CSyntaxTree::CSyntaxTree() : _fParser(ts_parser_new()) {
  const TSLanguage* const language = tree_sitter_python();
  if (!ts_parser_set_language(_fParser, language)) {
    ts_parser_delete(_fParser);
    throw CValueError("the Python grammar does not fit this release of tree-sitter");
  }
  _fTags = MakeTags(language);
}

CSyntaxTree::~CSyntaxTree() { ts_parser_delete(_fParser); }

bool CSyntaxTree::Parse(BytesView source) {
  _fSource = source;
  _fErrorCount = 0;
  _fFirstErrorLine = 0;
  if (_fNodes.capacity() > kMostNodesKept) {
    _fNodes = {};
  }
  _fNodes.clear();
  ts_parser_reset(_fParser);
  ts_parser_set_timeout_micros(_fParser,
                               kMostMicroseconds + kMostMicrosecondsPerByte * source.size());
  const std::unique_ptr<TSTree, CTreeDeleter> tree(ts_parser_parse_string(
      _fParser, nullptr, source.data(), static_cast<uint32_t>(source.size())));
  if (tree == nullptr) {
    _fNodes.push_back(CNode{0, static_cast<uint32_t>(source.size()), 1, 0, Tag::kModule, 0});
    NoteError(0);
    return false;
  }
  Flatten(tree.get());
  return true;
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

void CSyntaxTree::NoteError(uint32_t row) {
  ++_fErrorCount;
  if (_fFirstErrorLine == 0 || row < _fFirstErrorLine) {
    _fFirstErrorLine = size_t{row} + 1;
  }
}

void CSyntaxTree::Flatten(const TSTree* tree) {
  const TSNode root = ts_tree_root_node(tree);
  const bool has_error = ts_node_has_error(root);
  TSTreeCursor cursor = ts_tree_cursor_new(root);
  _fOpen.clear();
  while (true) {
    const TSNode node = ts_tree_cursor_current_node(&cursor);
    const TSSymbol symbol = ts_node_symbol(node);
    // The root is the module, whatever the parser made of it.
    const Tag tag = _fOpen.empty()           ? Tag::kModule
                    : symbol == kErrorSymbol ? Tag::kError
                                             : _fTags[symbol];
    bool kept = tag != kDropped;
    if (has_error && (symbol == kErrorSymbol || ts_node_is_missing(node))) {
      NoteError(ts_node_start_point(node).row);
      // What the parser put in has no text.
      kept = symbol == kErrorSymbol;
    }
    if (kept) {
      const auto index = static_cast<NodeIndex>(_fNodes.size());
      _fNodes.push_back(CNode{ts_node_start_byte(node), ts_node_end_byte(node), index + 1,
                              ts_node_start_point(node).row, tag, 0});
      if (ts_tree_cursor_goto_first_child(&cursor)) {
        _fOpen.push_back(index);
        continue;
      }
    }
    while (!_fOpen.empty() && !ts_tree_cursor_goto_next_sibling(&cursor)) {
      ts_tree_cursor_goto_parent(&cursor);
      _fNodes[_fOpen.back()].next = static_cast<NodeIndex>(_fNodes.size());
      _fOpen.pop_back();
    }
    if (_fOpen.empty()) {
      break;
    }
  }
  ts_tree_cursor_delete(&cursor);
}

}  // namespace pysource::standalone
