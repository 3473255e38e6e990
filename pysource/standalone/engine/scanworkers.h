// Worker threads that read, scan and encode files, the most urgent first.
#pragma once

#include <atomic>
#include <condition_variable>
#include <cstddef>
#include <cstdint>
#include <deque>
#include <functional>
#include <map>
#include <memory>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <utility>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/scoperef.h"
#include "pysource/host/text.h"
#include "pysource/standalone/files/disktimes.h"
#include "pysource/standalone/scanner/importresolver.h"
#include "pysource/standalone/scanner/scanner.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::standalone {

// One file to scan: what is on disk, or the text of an unsaved buffer.
struct CScanJob {
  Loc loc;
  std::optional<Text> unsaved_text;
  // What its giver knew the content by, or the version of the buffer. Handed back as it is.
  uint64_t look = 0;
};

// What came of it.
struct CScanJobResult {
  CScanJob job;
  CFileScan scan;           // each record with its encoded form in _serialized_data
  std::string error;        // why there is no scan; empty when there is one
  DiskTime disk_mtime = 0;  // of the content that was scanned
  size_t source_bytes = 0;
  size_t encoded_bytes = 0;  // of all its records
};

// Processor seconds of all workers together.
struct CScanWorkTimes {
  double read = 0;
  double scan = 0;
  double encode = 0;
};

// Jobs and results cross threads as a whole; nothing in them is shared with a worker once it is
// handed over. Workers that are ahead of the receiver wait, so what is scanned and not yet taken
// stays small, whatever the number of jobs.
//
// With no threads, jobs run on the receiver's own: when it waits for a result, or calls RunOneJob.
// That is for hosts that must not start threads, and for tests that must go the same way each time.
class CScanWorkers {
 public:
  // At most `threads` threads, begun as jobs come. `times` and `resolver` must outlive this.
  // `notify` is called from a worker thread when a result is ready; it must only wake the receiver.
  // Files that are larger than `max_file_bytes` are not scanned: their result says so.
  CScanWorkers(size_t threads, CDiskTimes& times, const CImportResolver& resolver,
               std::function<void()> notify, size_t max_file_bytes = kDefaultMaxBytes);
  // Drops the jobs that wait and waits for those in hand.
  ~CScanWorkers();
  CScanWorkers(const CScanWorkers&) = delete;
  CScanWorkers& operator=(const CScanWorkers&) = delete;

  // Higher urgency first; among equals in order of giving.
  void Give(CScanJob job, int urgency);

  // A result if one is ready; with `wait_ms` it waits for one that long.
  std::optional<CScanJobResult> Take(unsigned wait_ms = 0);

  // Runs the most urgent job here, whose result then waits to be taken; false when there is none.
  // Only with no threads.
  bool RunOneJob();

  // Jobs given whose results were not taken yet.
  size_t Outstanding() const;
  CScanWorkTimes Times() const;

 private:
  class CWorker;

  void Work();
  // Takes the most urgent job out, runs it without the lock and puts its result in line.
  void RunFirst(CWorker& worker, std::unique_lock<std::mutex>& lock);

  CDiskTimes& _fDiskTimes;
  const CImportResolver& _fResolver;
  const std::function<void()> _fNotify;
  const size_t _fMostThreads;
  const size_t _fMaxFileBytes;
  std::atomic<size_t> _fStopScans{0};  // 1: the scans in hand are to end

  mutable std::mutex _fMutex;  // guards all that follows but the threads
  std::condition_variable _fJobAdded;
  std::condition_variable _fResultAdded;
  std::condition_variable _fRoomMade;
  std::map<std::pair<int, uint64_t>, CScanJob> _fJobs;  // by negated urgency, then order of giving
  std::deque<CScanJobResult> _fResults;
  size_t _fResultBytes = 0;  // of the source that the results came from
  uint64_t _fGiven = 0;
  uint64_t _fTaken = 0;
  bool _fStopped = false;
  CScanWorkTimes _fTimes;

  std::unique_ptr<CWorker> _fOwnWorker;  // of the receiver's thread; null with others
  std::vector<std::thread> _fThreads;
};

}  // namespace pysource::standalone
