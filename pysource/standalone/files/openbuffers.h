// The open buffers of the standalone host: texts that are being edited.
#pragma once

#include <cstdint>
#include <memory>
#include <unordered_map>

#include "pysource/host/analysismgr.h"
#include "pysource/host/cachemgr.h"
#include "pysource/host/location.h"
#include "pysource/host/savable.h"
#include "pysource/host/text.h"

namespace pysource::standalone {

// One open file. It is what the cache asks for a modification time, what tells of save points, and,
// through its analysis, what tells that its scopes have changed.
class COpenBuffer final : public CSavable, public CCacheBuffer {
 public:
  COpenBuffer(Loc loc, Text text, DiskTime disk_mtime);
  ~COpenBuffer() override;

  const Text& GetText() const { return _fText; }
  // Grows with every edit, so that two contents of one buffer are told apart.
  uint64_t Version() const { return _fVersion; }

  bool IsModified() const override { return _fModified; }
  DiskTime GetLastKnownModTime() const override { return _fDiskTime; }
  bool GetInitialReadCompleted() const override { return true; }

  // Replaces the text. Emits the save point of a buffer that becomes modified, then that its scopes
  // changed.
  void SetText(Text text);
  // The text is now what the file holds since `disk_mtime`. Emits the save point.
  void MarkSaved(DiskTime disk_mtime);

 private:
  Text _fText;
  DiskTime _fDiskTime;
  uint64_t _fVersion = 0;
  bool _fModified = false;
  CPySourceAnalysis _fAnalysis;
};

// All of them; owns them.
class COpenBuffers final : public CCacheManager {
 public:
  COpenBuffers();
  ~COpenBuffers() override;

  CCacheBuffer* DoesCacheBufferExist(Loc loc, bool only_loaded) override {
    (void)only_loaded;  // a buffer here is read when it is opened
    return Find(loc);
  }

  // The open buffer of the file, or null.
  COpenBuffer* Find(Loc loc) const;
  // Reads the file and opens it; an open one is handed out as it is. Throws CValueError with the
  // file's name when it cannot be read.
  COpenBuffer& Open(Loc loc);
  // Writes the text to the file, by way of a file beside it, so that the old content is there until
  // the new one is complete. Throws CValueError with the file's name when it cannot be written; the
  // buffer is then still modified. Saving an unmodified buffer does nothing.
  void Save(Loc loc);
  // Closes the buffer, with whatever was not saved; true if something was not.
  bool Close(Loc loc);

 private:
  std::unordered_map<Loc, std::unique_ptr<COpenBuffer>> _fBuffers;
};

}  // namespace pysource::standalone
