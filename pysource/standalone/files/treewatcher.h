// Watches files and folder trees, and tells which Python files have come, changed or gone.
//
// What belongs to a tree is what FindPythonFiles finds in it; treefolder.h has the rules. Changes
// are told on the thread of the main loop, in batches: each path once, when nothing has happened
// for `quiet_ms`, or `most_ms` after the first event of a burst that does not end. A change is told
// by what it comes to: a file that an editor saves by renaming another one over it is edited, a
// file that came and went within one batch is not told of, and of a folder that comes or goes each
// of its files is told.
//
// The system is asked to tell (inotify); what it tells is taken as a hint where to look, and a
// folder that is new is watched first and read then, so that nothing falls in between. When more
// happens at once than the system keeps for us, it says so, and every folder is looked at.
// What the system cannot tell of is looked at again every `look_again_ms`: folders for which it has
// no more watches, folders that cannot be read, files that are links to elsewhere, and what was
// named and is not there. An error says so, once.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <string>

#include "pysource/standalone/mainloop/glibmainloop.h"

namespace pysource::standalone {

enum class ETreeChange { kAppeared, kEdited, kGone };
using CTreeChanges = std::map<std::string, ETreeChange>;  // by absolute path

struct CTreeWatcherOptions {
  unsigned quiet_ms = 50;
  unsigned most_ms = 500;
  unsigned look_again_ms = 3000;
  // Neither may destroy the watcher, and on_error may not call it.
  std::function<void(const CTreeChanges&)> on_changed = nullptr;
  // A folder or file, and what is wrong with it; the text says that it is looked at from time to
  // time in place of being watched. Told once, and again only if it was well in the meantime; that
  // the system has no more watches is told of the first folder alone.
  std::function<void(const std::string& path, const std::string& text)> on_error = nullptr;
};

class CTreeWatcher {
 public:
  // `loop` must outlive this, and everything happens on its thread.
  CTreeWatcher(CGlibMainLoop& loop, CTreeWatcherOptions options);
  ~CTreeWatcher();
  CTreeWatcher(const CTreeWatcher&) = delete;
  CTreeWatcher& operator=(const CTreeWatcher&) = delete;

  // Watches a file, whatever its suffix, or a folder and all below. What is there when this returns
  // is not told of; all that happens from then on is. It need not be there yet.
  void Watch(const std::string& path);

  // How many folders the system watches, and how many are looked at from time to time.
  size_t WatchCount() const;
  size_t LookAgainCount() const;

 private:
  class CImpl;
  std::unique_ptr<CImpl> _fImpl;
};

}  // namespace pysource::standalone
