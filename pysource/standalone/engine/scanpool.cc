#include "pysource/standalone/engine/scanpool.h"

#include <ctime>

#include <algorithm>
#include <chrono>
#include <exception>
#include <utility>

#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::standalone {
namespace {

// What may wait in the queue. A writer that is busy with one long save is not waited for by
// scanners of small files; the records of 8 MB of source are some 10 MB.
constexpr size_t kMostQueuedFiles = 64;
constexpr size_t kMostQueuedBytes = size_t{8} << 20;

double ThreadSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace

class CScanPool::CWorker {
 public:
  explicit CWorker(const CImportResolver& resolver) : fScanner(resolver) {}
  CScanner fScanner;
  scopeinfo::CScopeInfoSerializer fSerializer;
};

CScanPool::CScanPool(const std::vector<CFoundFile>& files, size_t jobs,
                     const CImportResolver& resolver)
    : _fFiles(files), _fResolver(resolver), _fLeft(files.size()) {
  const size_t count = std::min(std::max<size_t>(jobs, 1), files.size());
  _fThreads.reserve(count);
  for (size_t i = 0; i < count; ++i) {
    _fThreads.emplace_back([this] { Work(); });
  }
}

CScanPool::~CScanPool() {
  {
    const std::lock_guard lock(_fMutex);
    _fStopped = true;
  }
  _fRoom.notify_all();
  for (std::thread& thread : _fThreads) {
    thread.join();
  }
}

std::optional<CScannedFile> CScanPool::Next(const std::function<bool()>& is_cancelled) {
  std::unique_lock lock(_fMutex);
  if (_fLeft == 0) {
    return std::nullopt;
  }
  do {
    if (is_cancelled != nullptr && is_cancelled()) {
      return std::nullopt;
    }
  } while (
      !_fReady.wait_for(lock, std::chrono::milliseconds(100), [this] { return !_fQueue.empty(); }));
  std::optional<CScannedFile> result(std::move(_fQueue.front()));
  _fQueue.pop_front();
  _fQueuedBytes -= result->source_bytes;
  --_fLeft;
  lock.unlock();
  _fRoom.notify_one();
  return result;
}

CScanTimes CScanPool::Times() const {
  const std::lock_guard lock(_fMutex);
  return _fTimes;
}

void CScanPool::Work() {
  CWorker worker(_fResolver);
  std::unique_lock lock(_fMutex);
  while (!_fStopped && _fNextFile < _fFiles.size()) {
    const CFoundFile& file = _fFiles[_fNextFile++];
    lock.unlock();
    CScanTimes times;
    CScannedFile result = ScanFile(worker, file, times);
    lock.lock();
    _fTimes.read += times.read;
    _fTimes.scan += times.scan;
    _fTimes.encode += times.encode;
    _fRoom.wait(lock, [this] {
      return _fStopped || (_fQueue.size() < kMostQueuedFiles && _fQueuedBytes < kMostQueuedBytes);
    });
    _fQueuedBytes += result.source_bytes;
    _fQueue.push_back(std::move(result));
    _fReady.notify_one();
  }
}

// Never throws: whatever goes wrong with one file is said of that file, and the others go on.
CScannedFile CScanPool::ScanFile(CWorker& worker, const CFoundFile& file, CScanTimes& times) {
  CScannedFile result;
  result.file = &file;
  try {
    const double start = ThreadSeconds();
    const CSourceFile source = ReadSourceFile(file.path);
    const double read = ThreadSeconds();
    result.scan = worker.fScanner.Scan({file.loc, source.source, source.disk_mtime, false});
    const double scanned = ThreadSeconds();
    for (const CScanResult& scan : result.scan.results) {
      for (const scopeinfo::CScopeInfoPtr& info : scan.infos) {
        info->_serialized_data = worker.fSerializer.WriteScopeInfo(*info);
      }
    }
    const double encoded = ThreadSeconds();
    result.disk_mtime = source.disk_mtime;
    result.source_bytes = source.source.size();
    times = {read - start, scanned - read, encoded - scanned};
  } catch (const std::exception& error) {
    worker.fSerializer.Clear();
    result.scan = {};
    result.error = error.what();
  }
  return result;
}

}  // namespace pysource::standalone
