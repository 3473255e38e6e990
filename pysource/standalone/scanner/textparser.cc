#include "pysource/standalone/scanner/textparser.h"

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
    {"return_statement", Tag::kReturn},
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
    {"keyword_separator", Tag::kStarSeparator},
    {"positional_separator", Tag::kSlashSeparator},
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
    {"yield", Tag::kYield},
    {"conditional_expression", Tag::kConditional},
    {"boolean_operator", Tag::kBoolean},
    {"unary_operator", Tag::kUnary},
    {"parenthesized_expression", Tag::kParenthesized},
    {"expression_list", Tag::kExpressionList},
    {"list_splat", Tag::kListSplat},
    {"dictionary_splat", Tag::kDictionarySplat},
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

const char* ReadText(void* payload, uint32_t at, TSPoint /*position*/, uint32_t* size) {
  const BytesView text = static_cast<const CServedText*>(payload)->Read(at);
  *size = static_cast<uint32_t>(text.size());
  return text.empty() ? "" : text.data();
}

CServedText::CPlace PlaceOf(const CServedText& text, const TSNode& node) {
  return text.PlaceOf(ts_node_start_byte(node), ts_node_start_point(node).row);
}

// The parser is given up after this time: where much is wrong in one statement, recovering from
// each error costs time in proportion to all of them. A hundred times what it takes for code that
// is merely long, so that a busy machine or a sanitizer does not matter.
constexpr uint64_t kMaxMicroseconds = 10'000'000;

// What an error counts for by itself, in bytes that are not understood.
constexpr size_t kDamageOfError = 32;

}  // namespace

CTextParser::CTextParser()
    : _fParser(ts_parser_new()), _fTags([]() -> const std::vector<Tag>& {
        static const std::vector<Tag> tags = MakeTags(tree_sitter_python());
        return tags;
      }()) {
  if (!ts_parser_set_language(_fParser, tree_sitter_python())) {
    ts_parser_delete(_fParser);
    throw CValueError("the Python grammar does not fit this release of tree-sitter");
  }
  ts_parser_set_timeout_micros(_fParser, kMaxMicroseconds);
}

CTextParser::~CTextParser() { ts_parser_delete(_fParser); }

void CTextParser::SetStopFlag(const std::atomic<size_t>* stop) {
  static_assert(sizeof(std::atomic<size_t>) == sizeof(size_t));
  ts_parser_set_cancellation_flag(_fParser, reinterpret_cast<const size_t*>(stop));
}

bool CTextParser::Parse(const CServedText& text, std::vector<CNode>& nodes) {
  _fErrorCount = 0;
  _fDamage = 0;
  _fFirstErrorRow = 0;
  ts_parser_reset(_fParser);
  const TSInput input{const_cast<CServedText*>(&text), ReadText, TSInputEncodingUTF8};
  const std::unique_ptr<TSTree, CTreeDeleter> tree(ts_parser_parse(_fParser, nullptr, input));
  if (tree == nullptr) {
    return false;
  }
  Flatten(tree.get(), text, nodes);
  _fDamage = std::min<size_t>(_fDamage + _fErrorCount * kDamageOfError, text.Size());
  return true;
}

void CTextParser::NoteError(uint32_t row) {
  _fFirstErrorRow = _fErrorCount++ == 0 ? row : std::min(row, _fFirstErrorRow);
}

void CTextParser::Flatten(const TSTree* tree, const CServedText& text, std::vector<CNode>& nodes) {
  const TSNode root = ts_tree_root_node(tree);
  const bool has_error = ts_node_has_error(root);
  if (has_error && ts_node_symbol(root) == kErrorSymbol) {
    NoteError(text.PlaceOf(0, 0).row);
    _fDamage += text.Size();
  }
  TSTreeCursor cursor = ts_tree_cursor_new(root);
  _fOpen.clear();
  bool has_more = ts_tree_cursor_goto_first_child(&cursor);
  while (has_more) {
    const TSNode node = ts_tree_cursor_current_node(&cursor);
    const TSSymbol symbol = ts_node_symbol(node);
    const Tag tag = symbol == kErrorSymbol ? Tag::kError : _fTags[symbol];
    // What the parser put in has no text.
    const bool is_missing = has_error && ts_node_is_missing(node);
    if (tag == Tag::kError || is_missing) {
      NoteError(PlaceOf(text, node).row);
      _fDamage += ts_node_end_byte(node) - ts_node_start_byte(node);
    }
    bool enters = false;
    if (tag != kDropped && !is_missing) {
      const CServedText::CPlace begin = PlaceOf(text, node);
      const auto index = static_cast<NodeIndex>(nodes.size());
      const bool is_kept = !begin.is_foreign || tag == Tag::kBlock;
      if (is_kept) {
        const uint32_t end = std::max(begin.at, text.EndOf(ts_node_end_byte(node)));
        nodes.push_back(CNode{begin.at, end, index + 1, begin.row, tag,
                              begin.is_foreign ? kForeignBlock : uint8_t{0}});
      }
      enters = !(begin.is_foreign && is_kept) && ts_tree_cursor_goto_first_child(&cursor);
      if (enters) {
        _fOpen.push_back(is_kept ? index : kNoNode);
      }
    }
    while (!enters && !ts_tree_cursor_goto_next_sibling(&cursor)) {
      if (_fOpen.empty()) {
        has_more = false;
        break;
      }
      ts_tree_cursor_goto_parent(&cursor);
      if (_fOpen.back() != kNoNode) {
        nodes[_fOpen.back()].next = static_cast<NodeIndex>(nodes.size());
      }
      _fOpen.pop_back();
    }
  }
  ts_tree_cursor_delete(&cursor);
}

}  // namespace pysource::standalone
