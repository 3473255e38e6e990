// An edit of one file in a running engine: from the report of the change until the new records are
// written. Compared with a parse of that file plus a millisecond. Wall time, since a user waits for
// it.
//
// The engine has one worker and holds the files in memory. The change of the one file is reported
// as a watcher of the file system would report it. The peer is the parser alone, reused for each
// parse.
#include <tree_sitter/api.h>

#include <filesystem>
#include <fstream>
#include <stdexcept>
#include <vector>

#include "bench/pairs/pair.h"
#include "bench/support/clock.h"
#include "pysource/standalone/engine/engine.h"
#include "pysource/standalone/scanner/sourcefile.h"

extern "C" const TSLanguage* tree_sitter_python(void);

namespace pysource::bench {
namespace {

constexpr size_t kFiles = 12;

// Copies files of 2 to 60 KB, taken from the corpus at equal distances.
std::vector<std::string> CopyFiles(const CCorpus& corpus, const CTemporaryFolder& folder) {
  std::vector<std::string> paths;
  for (const CCorpusFile& file : corpus.files) {
    if (paths.size() == kFiles) {
      break;
    }
    if (file.source_bytes < 2000 || file.source_bytes > 60000 || file.scan.error_count != 0) {
      continue;
    }
    paths.push_back(folder.PathOf("edited" + std::to_string(paths.size()) + ".py"));
    std::filesystem::copy_file(*PathForLocation(file.loc), paths.back());
  }
  return paths;
}

double ParseSeconds(TSParser* parser, const Text& source) {
  const double start = WallSeconds();
  ts_parser_reset(parser);
  ts_tree_delete(
      ts_parser_parse_string(parser, nullptr, source.data(), static_cast<uint32_t>(source.size())));
  return WallSeconds() - start;
}

}  // namespace

void MeasureEdit(CBenchWorld& world, const CCorpus& corpus) {
  const CTemporaryFolder folder;
  const std::vector<std::string> paths = CopyFiles(corpus, folder);
  standalone::CEngineOptions options;
  options.db_path = world.fFolder.NewPath();
  standalone::CEngine engine(std::move(options));
  std::vector<Loc> locs;
  for (const std::string& path : paths) {
    locs.push_back(engine.Locations().GetLocationForPath(path));
    engine.Scans().RequestFile(locs.back());
  }
  engine.RunScans();

  TSParser* const parser = ts_parser_new();
  ts_parser_set_language(parser, tree_sitter_python());
  int edits = 0;
  size_t bytes = 0;
  const CPairTimes times = InTurn(
      [&] {
        double seconds = 0;
        ++edits;
        for (size_t i = 0; i < paths.size(); ++i) {
          std::ofstream(paths[i], std::ios::app) << "edit_" << edits << " = " << edits << "\n";
          const size_t scanned_before = engine.Scans().GetCounts().files_scanned;
          const double start = WallSeconds();
          engine.Files().CheckFile(locs[i]);
          if (!engine.Scans().IsBusy()) {
            engine.Scans().RequestFile(locs[i]);
          }
          engine.RunScans();
          engine.Cache().WriteToDatabase({locs[i]});
          seconds += WallSeconds() - start;
          const auto module = engine.Cache().GetScopeInfo(locs[i], "");
          if (engine.Scans().GetCounts().files_scanned == scanned_before || module == nullptr ||
              !module->GetInfoBytes("edit_" + std::to_string(edits)) ||
              engine.Cache().GetCounts().to_write != 0) {
            throw std::logic_error(paths[i] + ": the edit was not scanned and written");
          }
        }
        return seconds;
      },
      [&] {
        double seconds = 0;
        bytes = 0;
        for (const std::string& path : paths) {
          const Text source = standalone::ReadSourceFile(path).source;
          bytes += source.size();
          seconds += ParseSeconds(parser, source) + 1e-3;
        }
        return seconds;
      },
      3 * Rounds());
  ts_parser_delete(parser);
  PrintPair("edit", times, paths.size(), "us",
            std::to_string(paths.size()) + " files of " + std::to_string(bytes / paths.size()) +
                " bytes");
}

}  // namespace pysource::bench
