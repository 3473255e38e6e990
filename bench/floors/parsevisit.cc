// parsevisit ROOT THREADS: reads and parses every Python file below ROOT and visits every node. The
// minimum of work for indexing a tree.
#include <tree_sitter/api.h>

#include <atomic>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <thread>
#include <vector>

#include "bench/floors/walk.h"

extern "C" const TSLanguage* tree_sitter_python(void);

namespace {

struct CFile {
  std::string path;
  size_t size;
};

struct CCounts {
  std::atomic<size_t> files{0};
  std::atomic<size_t> bytes{0};
  std::atomic<size_t> nodes{0};
  std::atomic<size_t> checksum{0};
};

bool Read(const CFile& file, std::string& text) {
  std::FILE* const stream = std::fopen(file.path.c_str(), "rb");
  if (stream == nullptr) {
    return false;
  }
  text.resize(file.size);
  text.resize(std::fread(text.data(), 1, text.size(), stream));
  std::fclose(stream);
  return true;
}

void Visit(const TSTree* tree, CCounts& counts) {
  size_t nodes = 0;
  size_t checksum = 0;
  TSTreeCursor cursor = ts_tree_cursor_new(ts_tree_root_node(tree));
  for (bool more = true; more;) {
    const TSNode node = ts_tree_cursor_current_node(&cursor);
    ++nodes;
    checksum += ts_node_symbol(node) + ts_node_start_byte(node) + ts_node_end_byte(node);
    if (ts_tree_cursor_goto_first_child(&cursor)) {
      continue;
    }
    while (!ts_tree_cursor_goto_next_sibling(&cursor)) {
      if (!ts_tree_cursor_goto_parent(&cursor)) {
        more = false;
        break;
      }
    }
  }
  ts_tree_cursor_delete(&cursor);
  counts.nodes += nodes;
  counts.checksum += checksum;
}

void Work(const std::vector<CFile>& files, std::atomic<size_t>& next, CCounts& counts) {
  TSParser* const parser = ts_parser_new();
  ts_parser_set_language(parser, tree_sitter_python());
  std::string text;
  for (size_t i = next++; i < files.size(); i = next++) {
    if (!Read(files[i], text)) {
      continue;
    }
    TSTree* const tree =
        ts_parser_parse_string(parser, nullptr, text.data(), static_cast<uint32_t>(text.size()));
    ++counts.files;
    counts.bytes += text.size();
    Visit(tree, counts);
    ts_tree_delete(tree);
  }
  ts_parser_delete(parser);
}

}  // namespace

int main(int argc, char** argv) {
  if (argc != 3) {
    std::fprintf(stderr, "usage: parsevisit ROOT THREADS\n");
    return 2;
  }
  std::vector<CFile> files;
  pysource::bench::WalkPythonFiles(argv[1], [&](std::string path, const struct stat& status) {
    files.push_back({std::move(path), static_cast<size_t>(status.st_size)});
  });
  std::atomic<size_t> next{0};
  CCounts counts;
  std::vector<std::thread> threads;
  for (int i = 1; i < std::atoi(argv[2]); ++i) {
    threads.emplace_back([&] { Work(files, next, counts); });
  }
  Work(files, next, counts);
  for (std::thread& thread : threads) {
    thread.join();
  }
  std::printf("%zu files, %zu bytes, %zu nodes (%zx)\n", counts.files.load(), counts.bytes.load(),
              counts.nodes.load(), counts.checksum.load());
  return 0;
}
