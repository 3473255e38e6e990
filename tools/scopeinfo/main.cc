// scopeinfo: the scope information of Python files, from the command line.
#include <CLI/CLI.hpp>
#include <algorithm>
#include <csignal>
#include <cstdio>
#include <exception>
#include <filesystem>
#include <string>
#include <thread>

#include "pysource/host/logger.h"
#include "tools/scopeinfo/commands.h"
#include "tools/scopeinfo/interrupt.h"
#include "tools/scopeinfo/output.h"

#ifndef SCOPEINFO_VERSION
#define SCOPEINFO_VERSION "0.1.0"
#endif

namespace pysource::tools {
namespace {

constexpr const char* kAbout =
    "Finds out what each scope of Python files defines, and keeps it in a database.";

constexpr const char* kFooter = R"(Examples:
  scopeinfo index ~/project               index a tree; again: only what has changed
  scopeinfo watch ~/project               the same, and go on as files change
  scopeinfo scopes ~/project/app.py       the scopes of a file, as a tree
  scopeinfo show ~/project/app.py         what the module defines
  scopeinfo show app.py Window.close      what one of its scopes defines
  scopeinfo show app.py Window --json     the same, for programs
  scopeinfo show app.py Window.close --resolve self.title    where that is defined
  scopeinfo classes ~/project             all classes of a tree
  scopeinfo verify                        is every row of the database sound?
  scopeinfo verify ~/project              and is it as a fresh scan would make it?

The database is $XDG_CACHE_HOME/scopeinfo/index.db (~/.cache where that is not set) unless --db
names another. It can be deleted at any time; the next index makes it anew.

Exit code: 0 done; 1 something that was named is not there, or could not be stored; 2 bad usage;
130 interrupted. Source files that cannot be read or decoded do not fail an index run: they are
named in the summary, and tried again in the next run.)";

constexpr const char* kWatchFooter = R"(Events, one a line, with their fields in JSON:
  ready             the database is in step with the files: scanned (files, since the last
                    ready), files (all of them)
  scanned           a file was scanned, in whole or in part: file
  scopes-modified   what is known of scopes has changed: file, scopes ("*" for all, "" the module)
  needs-scan-added  scans that have become stale, and are about to run: file, scopes, scan,
                    priority (1 an open file, 2 a file on the disk, null what rests on others)
  scan-failed       a file could not be read or decoded: file, message
  file-removed      a file is gone, from the database too: file
  answer            a name of --resolve is defined there: file, scope, name, definitions, lost
  answer-purged     a scope that the answer was read from has changed: file, scope, name
  database-changed  another process has stored something: files (null for any)
  statistics        numbers of the cache and its memory, when SIGUSR1 asks for them

Troubles with the database or the disk go to the standard error, and are tried again. SIGTERM ends
it with 0, SIGINT with 130; what is unwritten is written first.)";

void AddDatabaseOptions(CLI::App& command, COptions& options) {
  command.add_option("--db", options.database.path, "The database file")->type_name("FILE");
  command
      .add_option("--workspace", options.database.workspace,
                  "Files below DIR are stored relative to it, so that the database stays good when "
                  "both move; the same DIR has to be given to every command")
      ->type_name("DIR");
}

CLI::Option* AddPaths(CLI::App& command, COptions& options) {
  CLI::Option* const paths =
      command.add_option("PATH", options.paths, "Files, and folders to search for .py and .pyi");
  paths->required()->type_name("");
  command.footer(
      "What is named is taken whatever its name. Below a named folder these are left out: hidden "
      "files\nand folders, node_modules, site-packages, __pycache__ and other caches, virtual "
      "environments.");
  return paths;
}

void AddJobs(CLI::App& command, COptions& options) {
  options.jobs = std::max(1U, std::thread::hardware_concurrency());
  command.add_option("--jobs", options.jobs, "Threads that scan (default: one a processor)")
      ->check(CLI::Range(size_t{1}, size_t{256}))
      ->type_name("N");
}

void AddMaxFileSize(CLI::App& command, COptions& options) {
  command
      .add_option("--max-file-size", options.max_file_bytes,
                  "Files that are larger are named and left out (default: 16 MiB)")
      ->check(CLI::Range(size_t{1}, standalone::kMostSourceBytes))
      ->type_name("BYTES");
}

void AddJson(CLI::App& command, COptions& options) {
  command.add_flag("--json", options.json, "JSON instead of a table");
}

void AddDebugDump(CLI::App& command, COptions& options) {
  command.add_flag("--debug-dump", options.debug_dump,
                   "Show what the cache holds after the answer, as text");
}

void AddFile(CLI::App& command, COptions& options) {
  command.add_option("FILE", options.file, "A Python file")->required()->type_name("");
}

int Run(int argc, char** argv) {
  COptions options;
  int (*run)(const COptions&) = nullptr;

  CLI::App app(kAbout, "scopeinfo");
  app.footer(kFooter);
  app.set_version_flag("--version", std::string("scopeinfo ") + SCOPEINFO_VERSION);
  app.require_subcommand(1);
  const auto add = [&](const char* name, const char* about, int (*function)(const COptions&)) {
    CLI::App& command = *app.add_subcommand(name, about);
    command.callback([&run, function] { run = function; });
    AddDatabaseOptions(command, options);
    return &command;
  };

  CLI::App* command =
      add("index", "Index files: scan what is new or changed, and store it", RunIndex);
  AddPaths(*command, options);
  AddJobs(*command, options);
  AddMaxFileSize(*command, options);
  command->add_flag("--verbose", options.verbose, "Name every file that something is wrong with");
  AddDebugDump(*command, options);

  command = add("watch", "Index files, stay, and follow every change", RunWatch);
  AddPaths(*command, options);
  AddJobs(*command, options);
  AddMaxFileSize(*command, options);
  command->add_flag("--json", options.json, "Each event as an object of JSON, one a line");
  command
      ->add_option(
          "--resolve", options.answers,
          "Say where NAME of SCOPE (may be empty) is defined, and again when that changes; "
          "can be repeated")
      ->type_name("FILE:SCOPE:NAME")
      ->allow_extra_args(false);
  command->footer(kWatchFooter);

  command = add("show", "Show what a scope defines, merged from all its scans", RunShow);
  AddFile(*command, options);
  command->add_option("SCOPE", options.scope, "Class.method, for example; left out: the module")
      ->type_name("");
  AddJson(*command, options);
  command
      ->add_option("--resolve", options.resolve,
                   "Follow NAME (dotted: self.x, module.Class) through imports, base classes and "
                   "instances to where it is defined, across files")
      ->type_name("NAME");
  command->add_flag("--explain", options.explain,
                    "Tell which records were merged and from which scans, what was stale and why, "
                    "and what was read from the database");
  AddDebugDump(*command, options);

  command = add("scopes", "Show the tree of the scopes of a file", RunScopes);
  AddFile(*command, options);
  AddJson(*command, options);
  AddDebugDump(*command, options);

  command = add("classes", "List the classes of indexed files", RunClasses);
  AddPaths(*command, options);
  AddJson(*command, options);
  AddDebugDump(*command, options);

  command = add("imports", "List the imports of indexed files", RunImports);
  AddPaths(*command, options);
  AddJson(*command, options);
  AddDebugDump(*command, options);

  command = add("stats",
                "Tell what the database holds, and what room it takes; of named files also what a "
                "cache holds that was asked for all their scopes",
                RunStats);
  AddPaths(*command, options)->required(false);
  AddJson(*command, options);

  command = add("verify",
                "Read and decode every row of the database; of named files also scan again and "
                "compare each record",
                RunVerify);
  AddPaths(*command, options)->required(false);
  AddJobs(*command, options);
  command->add_flag("--repair", options.repair,
                    "Drop what is damaged, or set the database aside; index then scans it again");
  command->add_flag("--merged", options.merged,
                    "Also ask the cache for every scope of the named files, and compare with a "
                    "merge of what the scans find; keeps all records in memory");
  command->add_flag("--verbose", options.verbose, "Name every difference");

  try {
    app.parse(argc, argv);
  } catch (const CLI::ParseError& error) {
    if (error.get_exit_code() == 0) {  // --help, --version
      const int code = app.exit(error);
      FlushOutput();
      return code;
    }
    Complain(error.what());
    Complain("scopeinfo --help tells how to use it");
    return kExitUsage;
  }
  const int code = run(options);
  FlushOutput();
  return code;
}

}  // namespace
}  // namespace pysource::tools

int main(int argc, char** argv) {
  // Whoever started us may have it ignored; a reader that has seen enough should end us quietly.
  std::signal(SIGPIPE, SIG_DFL);
  pysource::SetLineSink([](std::string_view line) { pysource::tools::Complain(line); });
  try {
    return pysource::tools::Run(argc, argv);
  } catch (const std::exception& error) {
    if (pysource::tools::IsInterrupted()) {
      pysource::tools::Complain("interrupted");
      return pysource::tools::kExitInterrupted;
    }
    pysource::tools::Complain(error.what());
    return pysource::tools::kExitFailed;
  }
}
