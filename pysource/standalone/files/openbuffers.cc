#include "pysource/standalone/files/openbuffers.h"

#include <cerrno>
#include <cstdio>
#include <cstring>
#include <filesystem>
#include <fstream>
#include <system_error>
#include <utility>

#include "pysource/host/errors.h"
#include "pysource/host/symbolinfo/scopenames.h"
#include "pysource/standalone/files/contenttime.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::standalone {

COpenBuffer::COpenBuffer(Loc loc, Text text, DiskTime disk_mtime)
    : CSavable(loc), _fText(std::move(text)), _fDiskTime(disk_mtime), _fAnalysis(loc) {
  _fAnalysis.fLogicalCache.fMatchedDiskMTime = disk_mtime;
}

COpenBuffer::~COpenBuffer() = default;

void COpenBuffer::SetText(Text text) {
  _fText = std::move(text);
  ++_fVersion;
  if (!_fModified) {
    _fModified = true;
    emit(kSavePoint, false);
  }
  _fAnalysis.emit(kScopeLogicalsModified, TextSet{Text(kWildcardScope)});
}

void COpenBuffer::MarkSaved(DiskTime disk_mtime) {
  _fModified = false;
  _fDiskTime = disk_mtime;
  _fAnalysis.fLogicalCache.fMatchedDiskMTime = disk_mtime;
  emit(kSavePoint, true);
}

COpenBuffers::COpenBuffers() = default;
COpenBuffers::~COpenBuffers() = default;

COpenBuffer* COpenBuffers::Find(Loc loc) const {
  const auto found = _fBuffers.find(loc);
  return found == _fBuffers.end() ? nullptr : found->second.get();
}

COpenBuffer& COpenBuffers::Open(Loc loc) {
  if (COpenBuffer* const open = Find(loc)) {
    return *open;
  }
  CSourceFile file = ReadSourceFile(loc);
  auto& buffer = _fBuffers[loc];
  buffer = std::make_unique<COpenBuffer>(loc, std::move(file.source), file.disk_mtime);
  return *buffer;
}

void COpenBuffers::Save(Loc loc) {
  COpenBuffer* const buffer = Find(loc);
  const auto path = PathForLocation(loc);
  if (buffer == nullptr || !path) {
    throw CValueError("no open buffer of " + loc.Repr());
  }
  if (!buffer->IsModified()) {
    return;
  }
  const std::string beside = *path + ".saving";
  errno = 0;
  std::ofstream out(beside, std::ios::binary | std::ios::trunc);
  out.write(buffer->GetText().data(), static_cast<std::streamsize>(buffer->GetText().size()));
  out.close();
  if (!out || std::rename(beside.c_str(), path->c_str()) != 0) {
    const std::string why = std::strerror(errno);
    std::error_code ignored;
    std::filesystem::remove(beside, ignored);
    throw CValueError(*path + " cannot be written: " + why);
  }
  // That of what was written, whatever another program has made of the file since.
  buffer->MarkSaved(ContentTime(buffer->GetText()));
}

bool COpenBuffers::Close(Loc loc) {
  const auto found = _fBuffers.find(loc);
  if (found == _fBuffers.end()) {
    return false;
  }
  const std::unique_ptr<COpenBuffer> closed = std::move(found->second);
  _fBuffers.erase(found);
  return closed->IsModified();
}

}  // namespace pysource::standalone
