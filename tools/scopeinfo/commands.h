// The commands of the program. Each writes its answer to the standard output, its complaints to the
// standard error, and returns the exit code. What goes wrong beyond that is thrown.
#pragma once

#include <cstddef>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "pysource/standalone/engine/nameresolver.h"
#include "pysource/standalone/scanner/sourcefile.h"
#include "tools/scopeinfo/database.h"

namespace pysource::tools {

inline constexpr int kExitOk = 0;
inline constexpr int kExitFailed = 1;
inline constexpr int kExitUsage = 2;
inline constexpr int kExitInterrupted = 130;  // 128 and the number of SIGINT, as shells have it

// What the command line says; each command reads its part.
struct COptions {
  CDatabaseOptions database;
  std::vector<std::string> paths;
  std::string file;
  std::string scope;
  size_t jobs = 1;
  size_t max_file_bytes = standalone::kDefaultMaxBytes;
  bool json = false;
  bool verbose = false;
  std::string resolve;               // a name; empty: none
  std::vector<std::string> answers;  // of watch: FILE:SCOPE:NAME each
  bool merged = false;
  bool repair = false;
  bool explain = false;
  bool debug_dump = false;
};

int RunIndex(const COptions& options);
int RunShow(const COptions& options);
int RunResolve(const COptions& options);
int RunScopes(const COptions& options);
int RunClasses(const COptions& options);
int RunImports(const COptions& options);
int RunStats(const COptions& options);
int RunVerify(const COptions& options);
int RunWatch(const COptions& options);

// An answer of the name resolver, as every command writes it.
nlohmann::ordered_json ResolutionToJson(const standalone::CResolution& resolution);

}  // namespace pysource::tools
