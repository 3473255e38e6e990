// Not a pair: the time of each stage of an index run, on one thread. Each stage has its own figure,
// in nanoseconds per byte of source; the peer is the parser's share of the whole.
#include <tree_sitter/api.h>

#include <algorithm>
#include <string>
#include <utility>
#include <vector>

#include "bench/pairs/pair.h"
#include "bench/support/clock.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"
#include "pysource/standalone/scanner/scanner.h"
#include "pysource/standalone/scanner/sourcefile.h"
#include "pysource/standalone/scanner/syntaxtree.h"

extern "C" const TSLanguage* tree_sitter_python(void);

namespace pysource::bench {

void MeasureStages(CBenchWorld& world, const CCorpus& corpus) {
  world.Open(world.fFolder.NewPath());
  TSParser* const parser = ts_parser_new();
  ts_parser_set_language(parser, tree_sitter_python());
  standalone::CSyntaxTree syntax_tree;
  standalone::CScanner scanner(world.fResolver);
  scopeinfo::CScopeInfoSerializer serializer;

  double read = 0;
  double parse = 0;
  double flatten = 0;
  double scan = 0;
  double encode = 0;
  double add = 0;
  double write = 0;
  double forget = 0;
  size_t bytes = 0;
  for (const CCorpusFile& each : corpus.files) {
    standalone::CSourceFile source;
    read += TimeOf([&] { source = standalone::ReadSourceFile(each.loc); });
    bytes += source.source.size();
    parse += TimeOf([&] {
      ts_parser_reset(parser);
      ts_tree_delete(ts_parser_parse_string(parser, nullptr, source.source.data(),
                                            static_cast<uint32_t>(source.source.size())));
    });
    flatten += TimeOf([&] { syntax_tree.Parse(source.source); });
    CCorpusFile file;
    file.loc = each.loc;
    scan += TimeOf([&] {
      file.scan =
          scanner.Scan({.loc = each.loc, .source = source.source, .disk_mtime = source.disk_mtime});
    });
    encode += TimeOf([&] {
      for (const standalone::CScanResult& result : file.scan.results) {
        for (const scopeinfo::CScopeInfoPtr& info : result.infos) {
          info->_serialized_data = serializer.WriteScopeInfo(*info);
        }
      }
    });
    add += TimeOf([&] { AddRecords(world.Cache(), file); });
    write += TimeOf([&] { world.Cache().WriteToDatabase(); });
    forget += TimeOf([&] { world.Cache().ClearFiles({file.loc}, false); });
  }
  ts_parser_delete(parser);

  const std::vector<std::pair<std::string, double>> stages = {{"read", read},
                                                              {"parse", parse},
                                                              {"flatten", flatten - parse},
                                                              {"visit", scan - flatten},
                                                              {"encode", encode},
                                                              {"add", add},
                                                              {"write", write},
                                                              {"forget", forget}};
  for (const auto& [name, seconds] : stages) {
    PrintFigures("stage-" + name, seconds * 1e9 / static_cast<double>(bytes),
                 parse * 1e9 / static_cast<double>(bytes), "ns a byte");
  }
}

}  // namespace pysource::bench
