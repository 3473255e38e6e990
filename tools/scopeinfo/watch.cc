// scopeinfo watch: keeps the database in step with a tree until it is told to end, and says what
// happens, a line for each event.
#include <fmt/format.h>
#include <glib-unix.h>

#include <algorithm>
#include <csignal>
#include <exception>
#include <map>
#include <optional>
#include <string>
#include <string_view>
#include <utility>
#include <vector>

#include "pysource/host/errors.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/standalone/engine/cachestats.h"
#include "pysource/standalone/engine/liveindex.h"
#include "pysource/standalone/engine/nameresolver.h"
#include "tools/scopeinfo/commands.h"
#include "tools/scopeinfo/output.h"

namespace pysource::tools {
namespace {

using Json = nlohmann::ordered_json;

// Signals are answered between two events, so none may take long: all operations of one callback
// wait for locks this long, and then again later.
constexpr int kWatchLockWaitMs = 50;

std::string PathOf(Loc loc) { return PathForLocation(loc).value_or(loc->fUrl); }

std::string ScopeWord(TextView scope) {
  if (scope == kWildcardScope) {
    return "all scopes";
  }
  return scope == kModuleScopeName ? "module" : Printable(scope);
}

std::vector<Text> Sorted(const TextSet& names) {
  std::vector<Text> sorted(names.begin(), names.end());
  std::sort(sorted.begin(), sorted.end());
  return sorted;
}

std::string Words(const std::vector<Text>& scopes) {
  std::string words;
  for (const Text& scope : scopes) {
    words += (words.empty() ? "" : ", ") + ScopeWord(scope);
  }
  return words;
}

// Writes events, each at once. When the output fails the watch has nobody to tell: the first such
// failure is kept and ends the loop.
class CEvents {
 public:
  CEvents(bool json, standalone::CGlibMainLoop& loop) : _fJson(json), _fLoop(loop) {}

  // `text` is what stands after the event's name for a person, `json` its fields for a program.
  void Say(std::string_view event, const std::string& text, const Json& json) {
    Json object{{"event", event}};
    object.update(json);
    try {
      Write(_fJson ? object.dump(-1, ' ', false, Json::error_handler_t::replace) + "\n"
                   : fmt::format("{:<16} {}\n", event, text));
      FlushOutput();
    } catch (const std::exception&) {
      if (_fError == nullptr) {
        _fError = std::current_exception();
      }
      _fLoop.Quit();
    }
  }
  void SayOfFile(std::string_view event, Loc loc) {
    Say(event, Printable(PathOf(loc)), {{"file", PathOf(loc)}});
  }

  void SayModified(const CChangedDict& changed) {
    for (const auto& [loc, scopes] : changed) {
      const std::vector<Text> names = Sorted(*scopes);
      Say("scopes-modified", fmt::format("{}: {}", Printable(PathOf(loc)), Words(names)),
          {{"file", PathOf(loc)}, {"scopes", names}});
    }
  }

  void SayNeedsScan(const CNeedsScanSet& needs_scan, Priority priority) {
    std::map<std::pair<std::string, Text>, TextSet> by_scan;
    for (const CNeedsScan& scan : needs_scan) {
      by_scan[{PathOf(scan.scanned_loc), scan.scan_name}].insert(scan.scanned_scope);
    }
    for (const auto& [scan, scopes] : by_scan) {
      const auto& [path, scan_name] = scan;
      const std::vector<Text> names = Sorted(scopes);
      Say("needs-scan-added",
          fmt::format("{}: {} by {}{}", Printable(path), Words(names), scan_name,
                      priority ? fmt::format(", priority {}", *priority) : ""),
          {{"file", path},
           {"scopes", names},
           {"scan", scan_name},
           {"priority", priority ? Json(*priority) : Json()}});
    }
  }

  void SayDatabaseChanged(const CLocSet* files) {
    if (files == nullptr) {
      Say("database-changed", "any file", {{"files", nullptr}});
      return;
    }
    std::vector<std::string> paths;
    for (const Loc loc : *files) {
      paths.push_back(PathOf(loc));
    }
    std::sort(paths.begin(), paths.end());
    Say("database-changed", Counted(paths.size(), "file"), {{"files", paths}});
  }

  void SayStatistics(const standalone::CCacheStats& stats, const CMemoryUse& memory) {
    std::string text;
    Json json;
    for (const auto& [name, value] : stats.Items()) {
      text += fmt::format("{}={} ", name, value);
      json[std::string(name)] = value;
    }
    text += fmt::format("merged_hit_rate={:.3f}", stats.MergedHitRate());
    json["merged_hit_rate"] = stats.MergedHitRate();
    json["memory"] = ToJson(memory);
    Say("statistics", text, json);
  }

  void ThrowIfFailed() const {
    if (_fError != nullptr) {
      std::rethrow_exception(_fError);
    }
  }

 private:
  const bool _fJson;
  standalone::CGlibMainLoop& _fLoop;
  std::exception_ptr _fError;
};

// Derived answers that are kept up to date: made anew when the index is ready, and told when one of
// the scopes that they were read from changes.
class CAnswers {
 public:
  CAnswers(standalone::CEngine& engine, const std::vector<std::string>& questions, CEvents& events)
      : _fEvents(events), _fResolver(engine) {
    for (const std::string& question : questions) {
      const size_t name = question.rfind(':');
      const size_t scope = name == std::string::npos || name == 0 ? std::string::npos
                                                                  : question.rfind(':', name - 1);
      if (scope == std::string::npos || name + 1 == question.size()) {
        throw CValueError("\"" + question + "\" is not of the form FILE:SCOPE:NAME");
      }
      _fQuestions.push_back({engine.Locations().GetLocationForPath(question.substr(0, scope)),
                             question.substr(scope + 1, name - scope - 1),
                             question.substr(name + 1)});
    }
    _fHeld.resize(_fQuestions.size());
  }

  void MakeAnew() {
    for (size_t i = 0; i < _fQuestions.size(); ++i) {
      if (!_fResolver.Holds(_fQuestions[i])) {
        const auto answer = _fResolver.Resolve(_fQuestions[i]);
        _fHeld[i] = _fResolver.Holds(_fQuestions[i]);
        std::string text;
        for (const auto& found : answer->definitions) {
          text += fmt::format(" {}:{}", Printable(PathOf(found.loc)), found.line.value_or(0));
        }
        Say("answer", i, text.empty() ? " nothing" : text, ResolutionToJson(*answer));
      }
    }
  }
  // To be called after scopes have changed.
  void SayPurged() {
    for (size_t i = 0; i < _fQuestions.size(); ++i) {
      if (_fHeld[i] && !_fResolver.Holds(_fQuestions[i])) {
        _fHeld[i] = false;
        Say("answer-purged", i, "", Json::object());
      }
    }
  }

 private:
  void Say(std::string_view event, size_t question, const std::string& text, const Json& json) {
    const auto& [loc, scope, name] = _fQuestions[question];
    Json object{{"file", PathOf(loc)}, {"scope", scope}, {"name", name}};
    object.update(json);
    _fEvents.Say(event,
                 fmt::format("{}: {} in {}:{}", Printable(PathOf(loc)), Printable(name),
                             ScopeWord(scope), text),
                 object);
  }

  CEvents& _fEvents;
  standalone::CNameResolver _fResolver;
  std::vector<standalone::CNameQuestion> _fQuestions;
  std::vector<bool> _fHeld;
};

// A Unix signal as a callback of the loop.
class CSignalSource {
 public:
  CSignalSource(standalone::CGlibMainLoop& loop, int number, std::function<void()> callback)
      : _fCallback(std::move(callback)), _fSource(g_unix_signal_source_new(number)) {
    // GLib calls it with the type that the source of a signal has.
    const GSourceFunc call = [](gpointer self) -> gboolean {
      static_cast<CSignalSource*>(self)->_fCallback();
      return G_SOURCE_CONTINUE;
    };
    g_source_set_callback(_fSource, call, this, nullptr);
    g_source_attach(_fSource, loop.Context());
  }
  // The signal then has its ordinary effect again.
  ~CSignalSource() {
    g_source_destroy(_fSource);
    g_source_unref(_fSource);
  }
  CSignalSource(const CSignalSource&) = delete;
  CSignalSource& operator=(const CSignalSource&) = delete;

 private:
  const std::function<void()> _fCallback;
  GSource* const _fSource;
};

// Sets the main loop of velk while it lives.
class CCurrentLoop {
 public:
  explicit CCurrentLoop(velk::CMainLoop& loop) : _fOld(velk::SetMainLoop(&loop)) {}
  ~CCurrentLoop() { velk::SetMainLoop(_fOld); }
  CCurrentLoop(const CCurrentLoop&) = delete;
  CCurrentLoop& operator=(const CCurrentLoop&) = delete;

 private:
  velk::CMainLoop* const _fOld;
};

void ComplainOf(const standalone::CPathNote& note) { Complain(NoteLine(note.path, note.text)); }

standalone::CEngineOptions EngineOptions(const COptions& options) {
  const std::string& workspace = options.database.workspace;
  return {.db_path = PrepareDatabasePath(options.database),
          .workspace_root = workspace,
          .import_roots = workspace.empty() ? std::vector<std::string>() : std::vector{workspace},
          .threads = options.jobs,
          .max_file_bytes = options.max_file_bytes,
          .lock_wait_ms = kWatchLockWaitMs};
}

standalone::CLiveIndexOptions LiveOptions(const COptions& options, CEvents& events,
                                          std::optional<CAnswers>& answers) {
  return {
      .paths = options.paths,
      .on_ready =
          [&events, &answers](size_t scanned, size_t files) {
            if (answers) {
              answers->MakeAnew();
            }
            events.Say("ready", fmt::format("{} scanned, {}", scanned, Counted(files, "file")),
                       {{"scanned", scanned}, {"files", files}});
          },
      .on_scanned = [&events](Loc loc) { events.SayOfFile("scanned", loc); },
      .on_failed =
          [&events](Loc loc, const std::string& why) {
            events.Say("scan-failed", Printable(NoteLine(PathOf(loc), why)),
                       {{"file", PathOf(loc)}, {"message", why}});
          },
      .on_removed = [&events](Loc loc) { events.SayOfFile("file-removed", loc); },
      .on_database_changed = [&events](const CLocSet* files) { events.SayDatabaseChanged(files); },
      .on_trouble = ComplainOf,
  };
}

}  // namespace

int RunWatch(const COptions& options) {
  standalone::CGlibMainLoop loop;
  const CCurrentLoop current(loop);
  CEvents events(options.json, loop);
  int code = kExitOk;
  // Before anything is written, so that no signal finds it half done.
  const CSignalSource interrupt(loop, SIGINT, [&] {
    code = kExitInterrupted;
    loop.Quit();
  });
  const CSignalSource terminate(loop, SIGTERM, [&] { loop.Quit(); });

  std::optional<CAnswers> answers;
  standalone::CLiveIndex live(loop, EngineOptions(options), LiveOptions(options, events, answers));
  Complain(live.Engine().Database().Message());
  scopeinfo::CInfoCache& cache = live.Engine().Cache();
  if (!options.answers.empty()) {
    answers.emplace(live.Engine(), options.answers, events);
  }
  // After the resolver's own handler, which purges.
  cache.connect(kScopesModified, [&](CInfoCacheBase&, const CChangedDict& changed) {
    events.SayModified(changed);
    if (answers) {
      answers->SayPurged();
    }
  });
  cache.connect(kNeedsScanAdded,
                [&events](CInfoCacheBase&, const CNeedsScanSet& needs_scan, Priority priority) {
                  events.SayNeedsScan(needs_scan, priority);
                });
  const CSignalSource statistics(loop, SIGUSR1, [&] {
    events.SayStatistics(standalone::GetCacheStats(cache), standalone::GetMemoryUse(live.Engine()));
  });

  live.Start();
  loop.Run();

  live.Engine().Database().LimitWaiting(kLastSavesWaitMs);
  for (const standalone::CPathNote& refused : live.WriteAll()) {
    ComplainOf(refused);
    code = kExitFailed;
  }
  answers.reset();  // before the engine that it asks
  events.ThrowIfFailed();
  return code;
}

}  // namespace pysource::tools
