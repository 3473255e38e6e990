// One command's engine: the info cache over the database that the options name, real files and
// scans, without a main loop of its own: work is done while the command waits for it.
#pragma once

#include <functional>
#include <memory>
#include <string>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/host/manualloop.h"
#include "pysource/standalone/engine/engine.h"
#include "tools/scopeinfo/commands.h"

namespace pysource::tools {

class CSession {
 public:
  // Opens the database, or makes it; what it has to say goes to the standard error. From here on an
  // interrupt makes Between() answer false. Throws CValueError when the database cannot be used.
  explicit CSession(const COptions& options);
  // Writes what is unwritten, and waits a second at most to do so.
  ~CSession();
  CSession(const CSession&) = delete;
  CSession& operator=(const CSession&) = delete;

  standalone::CEngine& Engine() { return *_fEngine; }
  // To be called between pieces of work: runs what is due. False after an interrupt.
  std::function<bool()> Between();

  // The file that a command names, to be asked about. Throws CValueError, with its name, when it is
  // not there or is no file.
  Loc OpenFile(const std::string& path);
  // Throws CValueError if a scan of the file has failed since the session began.
  void ThrowIfNotScanned(Loc loc) const;
  // How many files were scanned in this session.
  size_t FilesScanned() const { return _fEngine->Scans().GetCounts().files_scanned; }

  // For commands that give an answer: until Finish() nothing that is saved waits for another process.
  void AnswerFirst();
  // To be called when the answer is written: what --debug-dump asks for follows it, then all of it is
  // seen to be out, and only then is saved what was scanned for it. If another process does not let
  // go of the database for a second, that is said, and is all.
  void Finish();

  // For --debug-dump: what the cache holds, after the answer; beside it where that is JSON.
  void DumpIfAsked();

 private:
  const COptions& _fOptions;
  velk::CManualLoop _fLoop;
  velk::CMainLoop* _fOldLoop;
  std::unique_ptr<standalone::CEngine> _fEngine;
  bool _fIsFinished = false;
  std::vector<standalone::CScanRunner::Failure> _fFailures;
};

}  // namespace pysource::tools
