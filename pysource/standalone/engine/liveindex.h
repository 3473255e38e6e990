// An engine that keeps its database in step with a tree of files, for as long as it lives.
//
// It runs on GLib's main loop. In idle time it scans what is stale, stores it, and then stays: what
// changes on the disk is told by a tree watcher, what another process stores by a look at the
// database now and then. A change makes the cache ask for scans, and these make it ask for scans of
// other files. What is not in memory the cache does not know: so before the new state of a file is
// stored the database is compared with the tree (indexplan.h), which finds the files that rest on
// it and those that have told something of it. When all scans are through, it is compared once
// more, and on_ready is called.
//
//   change ──▶ plan ──▶ cache, scan runner ──▶ scans ──▶ plan ──▶ nothing to do: ready
//                                               ▲          │
//                                               └──────────┘ to be scanned
//
// A database that is locked, a disk that is full: on_trouble says so, once for as long as it lasts,
// scans pause, and all is tried again every `try_again_ms`. Nothing that was written is lost by a
// kill at any point; the next life makes up for the rest.
#pragma once

#include <cstddef>
#include <functional>
#include <map>
#include <memory>
#include <set>
#include <string>
#include <unordered_map>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/velk.h"
#include "pysource/standalone/engine/engine.h"
#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/engine/indexplan.h"
#include "pysource/standalone/files/treewatcher.h"
#include "pysource/standalone/mainloop/glibmainloop.h"

namespace pysource::standalone {

struct CLiveIndexOptions {
  std::vector<std::string> paths;  // files and folders
  unsigned look_at_database_ms = 1000;
  unsigned try_again_ms = 2000;

  // Called on the loop's thread; may be empty, and must not throw. None may end the live index.
  //
  // The database is in step with the tree, after so many files were scanned since the last time.
  std::function<void(size_t scanned, size_t files)> on_ready = nullptr;
  std::function<void(Loc)> on_scanned = nullptr;
  // The file could not be read or decoded.
  std::function<void(Loc, const std::string& why)> on_failed = nullptr;
  // The file is gone, and its information with it.
  std::function<void(Loc)> on_removed = nullptr;
  // Another process has changed what is stored of these files; null: of any.
  std::function<void(const CLocSet*)> on_database_changed = nullptr;
  // A file or folder of the disk, or the database, and what is wrong with it.
  std::function<void(const CPathNote&)> on_trouble = nullptr;
};

class CLiveIndex {
 public:
  // `loop` must be set as the main loop of velk, and outlive this. Throws CValueError, with the
  // name of the file, when the database cannot be used.
  // `engine.lock_wait_ms` limits what one callback of the loop, with all its operations, waits for
  // locks.
  CLiveIndex(CGlibMainLoop& loop, CEngineOptions engine, CLiveIndexOptions options);
  // Writes what is unwritten.
  ~CLiveIndex();
  CLiveIndex(const CLiveIndex&) = delete;
  CLiveIndex& operator=(const CLiveIndex&) = delete;

  // Finds the files and watches them; the rest happens on the loop.
  void Start();
  // Writes what is unwritten; returns what the database refused.
  std::vector<CPathNote> WriteAll();

  CEngine& Engine() { return *_fEngine; }

 private:
  void ConnectToEngine();
  void TakeChanges(const CTreeChanges& changes);
  void WakeUp();
  bool Work();
  bool MakePlan();
  bool Follow(const CIndexPlan& plan);
  void CheckChanged();
  void TakeTimes(const CLocMtimeDict& times);
  void Settled();
  void TakeScanned(Loc loc);
  void TakeFailure(const CScanRunner::Failure& failure);
  void Unsettle();
  void Guarded(const std::function<void()>& work);
  void Trouble(const CPathNote& note);
  void LookAtDatabase();
  bool IsRefused(Loc loc);

  CGlibMainLoop& _fLoop;
  const CLiveIndexOptions _fOptions;
  const std::shared_ptr<int> _fAlive = std::make_shared<int>();  // for work that was posted
  std::unique_ptr<CEngine> _fEngine;
  std::unique_ptr<CTreeWatcher> _fWatcher;

  CFoundFiles _fTree;                             // what was named; its list of files is made anew
  std::map<std::string, CFoundFile> _fTreeFiles;  // the files of the tree now, by path
  // What was asked for since the last change, and what the files looked like: what a plan asks for
  // again after it was scanned will not come by scanning.
  std::unordered_map<Loc, CFileStamp> _fTried;
  // Files that changed, of which the cache has not been told yet, and those that it has asked scans
  // of the whole file for when it was.
  CLocSet _fChanged;
  CLocSet _fAsked;
  bool _fIsPlanDue = false;  // nothing is stored before it is made
  bool _fIsSettled = true;
  bool _fMetLock = false;         // since all was well
  size_t _fScanned = 0;           // since the last on_ready
  std::set<std::string> _fTold;   // troubles, since all was well
  std::string _fDatabaseMessage;  // told already
  velk::Tag _fWorkTag = 0;        // of the idle call, 0 for none
  velk::Tag _fTryAgainTag = 0;    // of the timer; while it runs nothing is scanned or stored
  velk::Tag _fLookAtDatabaseTag = 0;
};

}  // namespace pysource::standalone
