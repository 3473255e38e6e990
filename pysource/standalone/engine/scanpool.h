// Scanning files in worker threads.
//
// Each worker has a scanner and a serializer of its own, takes the next file of the list, reads,
// scans and encodes it, and hands the result to the one thread that calls Next(). Results come in
// the order in which they are ready. Workers that are ahead of the reader wait, so what is scanned
// and not yet taken stays small, whatever the size of the tree.
#pragma once

#include <condition_variable>
#include <cstddef>
#include <deque>
#include <functional>
#include <mutex>
#include <optional>
#include <string>
#include <thread>
#include <vector>

#include "pysource/standalone/engine/findfiles.h"
#include "pysource/standalone/scanner/importresolver.h"
#include "pysource/standalone/scanner/scanner.h"

namespace pysource::standalone {

struct CScannedFile {
  const CFoundFile* file = nullptr;  // of the pool's list
  std::string error;                 // why it could not be read; empty when it could
  CFileScan scan;                    // each record has its encoded form in _serialized_data
  DiskTime disk_mtime = 0;           // of the content that was scanned
  size_t source_bytes = 0;
};

// Seconds of processor time, of all workers together.
struct CScanTimes {
  double read = 0;
  double scan = 0;
  double encode = 0;
};

class CScanPool {
 public:
  // Starts `jobs` threads, but not more than there are files. The list and the resolver must
  // outlive the pool.
  CScanPool(const std::vector<CFoundFile>& files, size_t jobs, const CImportResolver& resolver);
  // Waits for the files that are being scanned, and drops them.
  ~CScanPool();
  CScanPool(const CScanPool&) = delete;
  CScanPool& operator=(const CScanPool&) = delete;

  // Waits for a result. Absent when every file was handed out, and when `is_cancelled` (asked ten
  // times a second; may be null) says so.
  std::optional<CScannedFile> Next(const std::function<bool()>& is_cancelled);

  // Of the results that were handed out so far.
  CScanTimes Times() const;

 private:
  class CWorker;

  void Work();
  static CScannedFile ScanFile(CWorker& worker, const CFoundFile& file, CScanTimes& times);

  const std::vector<CFoundFile>& _fFiles;
  const CImportResolver& _fResolver;

  mutable std::mutex _fMutex;  // guards all that follows but the threads
  std::condition_variable _fReady;
  std::condition_variable _fRoom;
  std::deque<CScannedFile> _fQueue;
  size_t _fQueuedBytes = 0;  // of source, in the queue
  size_t _fNextFile = 0;     // the first that no worker has taken
  size_t _fLeft;             // results that were not handed out yet
  bool _fStopped = false;
  CScanTimes _fTimes;

  std::vector<std::thread> _fThreads;
};

}  // namespace pysource::standalone
