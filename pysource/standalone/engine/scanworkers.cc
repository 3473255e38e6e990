#include "pysource/standalone/engine/scanworkers.h"

#include <algorithm>
#include <chrono>
#include <ctime>
#include <exception>
#include <utility>

#include "pysource/scopeinfo/records/vocabulary.h"
#include "pysource/scopeinfo/serialized/scopeinfoserializer.h"

namespace pysource::standalone {
namespace {

// Results that wait to be taken: so many, or from so much source. Enough to keep workers busy while
// the receiver writes a transaction, and a few dozen megabytes of records at most.
constexpr size_t kMostResults = 32;
constexpr size_t kMostResultBytes = size_t{4} << 20;

double ThreadSeconds() {
  timespec now{};
  clock_gettime(CLOCK_THREAD_CPUTIME_ID, &now);
  return static_cast<double>(now.tv_sec) + static_cast<double>(now.tv_nsec) * 1e-9;
}

}  // namespace

// What one worker keeps from file to file.
class CScanWorkers::CWorker {
 public:
  CWorker(CDiskTimes& times_of_files, const CImportResolver& resolver, size_t max_file_bytes,
          const std::atomic<size_t>* stop)
      : disk_times(times_of_files), scanner(resolver, stop), max_bytes(max_file_bytes) {}

  void Run(CScanJobResult& result, CScanWorkTimes& times) {
    double before = ThreadSeconds();
    const auto lap = [&before](double& total) {
      const double now = ThreadSeconds();
      total += now - std::exchange(before, now);
    };
    try {
      Text source;
      if (result.job.unsaved_text) {
        source = std::move(*result.job.unsaved_text);
        result.disk_mtime = scopeinfo::kFileModifiedInMemoryMtime;
      } else {
        CSourceFile file = disk_times.Read(result.job.loc, max_bytes);
        source = std::move(file.source);
        result.disk_mtime = file.disk_mtime;
      }
      result.source_bytes = source.size();
      lap(times.read);
      result.scan = scanner.Scan({.loc = result.job.loc,
                                  .source = source,
                                  .disk_mtime = result.disk_mtime,
                                  .incomplete = result.job.unsaved_text.has_value()});
      lap(times.scan);
      // Encoded here, so that the main thread only stores.
      for (const CScanResult& each : result.scan.results) {
        for (const scopeinfo::CScopeInfoPtr& info : each.infos) {
          info->_serialized_data = serializer.WriteScopeInfo(*info);
          result.encoded_bytes += info->_serialized_data->size();
        }
      }
      lap(times.encode);
    } catch (const std::exception& error) {
      result.scan = {};
      result.error = error.what();
      serializer.Clear();
    }
  }

 private:
  CDiskTimes& disk_times;
  CScanner scanner;
  const size_t max_bytes;
  scopeinfo::CScopeInfoSerializer serializer;
};

CScanWorkers::CScanWorkers(size_t threads, CDiskTimes& times, const CImportResolver& resolver,
                           std::function<void()> notify, size_t max_file_bytes)
    : _fDiskTimes(times),
      _fResolver(resolver),
      _fNotify(std::move(notify)),
      _fMostThreads(threads),
      _fMaxFileBytes(max_file_bytes) {
  if (threads == 0) {
    _fOwnWorker = std::make_unique<CWorker>(times, resolver, max_file_bytes, nullptr);
  }
}

CScanWorkers::~CScanWorkers() {
  {
    const std::lock_guard lock(_fMutex);
    _fStopped = true;
    _fStopScans = 1;
    _fJobs.clear();
  }
  _fJobAdded.notify_all();
  _fRoomMade.notify_all();
  for (std::thread& thread : _fThreads) {
    thread.join();
  }
}

void CScanWorkers::Give(CScanJob job, int urgency) {
  // A process that finds everything in its database never needs one.
  if (_fThreads.size() < _fMostThreads) {
    _fThreads.emplace_back([this] { Work(); });
  }
  {
    const std::lock_guard lock(_fMutex);
    _fJobs.emplace(std::pair(-urgency, _fGiven++), std::move(job));
  }
  _fJobAdded.notify_one();
}

std::optional<CScanJobResult> CScanWorkers::Take(unsigned wait_ms) {
  std::unique_lock lock(_fMutex);
  if (_fOwnWorker != nullptr && wait_ms != 0 && _fResults.empty() && !_fJobs.empty()) {
    RunFirst(*_fOwnWorker, lock);
  }
  const std::chrono::milliseconds wait(_fOwnWorker == nullptr ? wait_ms : 0);
  if (!_fResultAdded.wait_for(lock, wait, [this] { return !_fResults.empty(); })) {
    return std::nullopt;
  }
  CScanJobResult result = std::move(_fResults.front());
  _fResults.pop_front();
  _fResultBytes -= result.source_bytes;
  ++_fTaken;
  lock.unlock();
  _fRoomMade.notify_one();
  return result;
}

bool CScanWorkers::RunOneJob() {
  std::unique_lock lock(_fMutex);
  if (_fOwnWorker == nullptr || _fJobs.empty()) {
    return false;
  }
  RunFirst(*_fOwnWorker, lock);
  return true;
}

size_t CScanWorkers::Outstanding() const {
  const std::lock_guard lock(_fMutex);
  return static_cast<size_t>(_fGiven - _fTaken);
}

CScanWorkTimes CScanWorkers::Times() const {
  const std::lock_guard lock(_fMutex);
  return _fTimes;
}

void CScanWorkers::Work() {
  CWorker worker(_fDiskTimes, _fResolver, _fMaxFileBytes, &_fStopScans);
  std::unique_lock lock(_fMutex);
  for (;;) {
    _fJobAdded.wait(lock, [this] { return _fStopped || !_fJobs.empty(); });
    _fRoomMade.wait(lock, [this] {
      return _fStopped || (_fResults.size() < kMostResults && _fResultBytes < kMostResultBytes);
    });
    if (_fStopped) {
      return;
    }
    if (_fJobs.empty()) {
      // Another worker took it while this one waited for room.
      continue;
    }
    RunFirst(worker, lock);
  }
}

void CScanWorkers::RunFirst(CWorker& worker, std::unique_lock<std::mutex>& lock) {
  CScanJobResult result;
  result.job = std::move(_fJobs.begin()->second);
  _fJobs.erase(_fJobs.begin());
  lock.unlock();
  CScanWorkTimes times;
  worker.Run(result, times);
  lock.lock();
  _fTimes.read += times.read;
  _fTimes.scan += times.scan;
  _fTimes.encode += times.encode;
  _fResultBytes += result.source_bytes;
  _fResults.push_back(std::move(result));
  _fResultAdded.notify_one();
  if (_fNotify) {
    lock.unlock();
    _fNotify();
    lock.lock();
  }
}

}  // namespace pysource::standalone
