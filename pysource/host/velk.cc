#include "pysource/host/velk.h"

#include <dlfcn.h>
#include <link.h>
#include <unistd.h>

#include <array>
#include <exception>

#include "pysource/host/errors.h"
#include "pysource/host/logger.h"

namespace pysource::velk {
namespace {

CMainLoop* gMainLoop = nullptr;

// Its address is inside the executable or library that this file was linked into.
const char kAnchor = 0;

}  // namespace

CMainLoop::~CMainLoop() = default;

CMainLoop* SetMainLoop(CMainLoop* loop) { return std::exchange(gMainLoop, loop); }

CMainLoop& GetMainLoop() {
  if (gMainLoop == nullptr) {
    throw CTypeError("no main loop is set: call velk::SetMainLoop first");
  }
  return *gMainLoop;
}

Tag timeout_add(unsigned ms, Callback callback) {
  return GetMainLoop().timeout_add(ms, std::move(callback));
}
void timeout_remove(Tag tag) { GetMainLoop().timeout_remove(tag); }
Tag idle_add(Callback callback, int priority) {
  return GetMainLoop().idle_add(std::move(callback), priority);
}
void idle_remove(Tag tag) { GetMainLoop().idle_remove(tag); }

bool RunCallback(const Callback& callback) {
  try {
    return callback();
  } catch (const CAssertionError& error) {
    CriticalLog("main loop: a callback failed: assertion at %s %s", error.Where(), error.what());
  } catch (const std::exception& error) {
    CriticalLog("main loop: a callback failed: %s", error.what());
  } catch (...) {
    CriticalLog("main loop: a callback failed with an unknown error");
  }
  return false;
}

std::string ModulePath() {
  Dl_info info{};
  void* map = nullptr;
  if (dladdr1(&kAnchor, &info, &map, RTLD_DL_LINKMAP) == 0 || map == nullptr ||
      info.dli_fname == nullptr) {
    return {};
  }
  std::string path = info.dli_fname;
  // The executable itself has no name in its link map; `info` has the path that it was started
  // with, which may be relative.
  if (*static_cast<const link_map*>(map)->l_name == '\0') {
    std::array<char, 4096> buffer{};
    const ssize_t size = readlink("/proc/self/exe", buffer.data(), buffer.size());
    if (size > 0) {
      path.assign(buffer.data(), static_cast<size_t>(size));
    }
  }
  return path;
}

}  // namespace pysource::velk
