#include "pysource/standalone/files/treewatcher.h"

#include <fmt/format.h>
#include <glib-unix.h>
#include <glib.h>
#include <sys/inotify.h>
#include <sys/stat.h>
#include <unistd.h>

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstring>
#include <optional>
#include <set>
#include <string_view>
#include <unordered_map>
#include <utility>
#include <vector>

#include "pysource/host/location.h"
#include "pysource/standalone/files/filestamp.h"
#include "pysource/standalone/files/treefolder.h"

namespace pysource::standalone {
namespace {

using Identity = std::pair<dev_t, ino_t>;

Identity IdentityOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }

std::optional<Identity> IdentityAt(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? std::optional(IdentityOf(status)) : std::nullopt;
}

// The system's events for folders (inotify), by the number of the watch.
class CFolderEvents {
 public:
  CFolderEvents() : _fFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}
  ~CFolderEvents() {
    if (_fFd >= 0) {
      close(_fFd);
    }
  }
  CFolderEvents(const CFolderEvents&) = delete;
  CFolderEvents& operator=(const CFolderEvents&) = delete;

  // Readable when there are events; -1 when the system has none for us.
  int Fd() const { return _fFd; }

  // The watch of the folder, which is the same for all names of one folder; or -1, with errno.
  int Add(const std::string& folder) const {
    constexpr uint32_t kEvents = IN_CREATE | IN_DELETE | IN_MOVED_FROM | IN_MOVED_TO | IN_MODIFY |
                                 IN_CLOSE_WRITE | IN_ATTRIB | IN_DELETE_SELF | IN_MOVE_SELF;
    if (_fFd < 0) {
      errno = EMFILE;
      return -1;
    }
    return inotify_add_watch(_fFd, folder.c_str(), kEvents | IN_ONLYDIR);
  }
  void Remove(int watch) const { inotify_rm_watch(_fFd, watch); }

  // Calls visit(event, name) with all that has happened; the name is empty where the folder itself
  // is meant.
  template <class Visit>
  void Read(const Visit& visit) const {
    alignas(inotify_event) std::array<char, 16384> events;
    for (ssize_t size; (size = read(_fFd, events.data(), events.size())) > 0;) {
      for (const char* at = events.data(); at < events.data() + size;) {
        inotify_event event;
        std::memcpy(&event, at, sizeof event);
        at += sizeof event;
        visit(event, event.len == 0 ? std::string() : std::string(at));
        at += event.len;
      }
    }
  }

 private:
  const int _fFd;
};

// A file that the system does not tell of shows by its time of change alone that it was written
// under a restored date. Of one that it tells of, that would only say that its mode is another.
bool IsSame(CFileStamp before, const CFileStamp& now, bool is_told_of) {
  before.ctime_ns = is_told_of ? now.ctime_ns : before.ctime_ns;
  return before == now;
}

// What is known of one folder.
struct CFolder {
  std::string path;
  bool is_root = false;   // named by the user, and so kept when it is gone
  bool is_whole = false;  // all of the tree below is watched; else just the files that are named
  std::set<std::string> named;  // files that the user has named
  bool is_left_out = false;
  bool look_again = false;
  int told_error = 0;  // the errno that was told last, 0 when all was well since

  std::optional<Identity> identity;         // absent until it was read, and while it is not there
  std::map<std::string, CFileStamp> files;  // by name
  std::set<std::string> folders;  // names of those below that may be in the watcher's list
  std::set<std::string> touched;  // names that the system told of since the last look

  int watch = -1;  // -1 while the folder is not watched

  bool IsKept() const { return is_root || !named.empty(); }
};

}  // namespace

// One look at a folder (Look) compares what is there with what was known, and is all that ever
// changes what is known. Events only say which folders to look at:
//
//   event ──▶ _fDirty, timer ──▶ Flush: Look at each ──▶ Tell: _fChanges ──▶ on_changed
//                                 ▲
//   look-again timer ─────────────┘
class CTreeWatcher::CImpl {
 public:
  CImpl(CGlibMainLoop& loop, CTreeWatcherOptions options)
      : _fLoop(loop), _fOptions(std::move(options)) {
    _fLookAgainTimer = _fLoop.timeout_add(_fOptions.look_again_ms, [this] {
      LookAgain();
      return true;
    });
    if (_fEvents.Fd() >= 0) {
      _fEventSource = g_unix_fd_source_new(_fEvents.Fd(), G_IO_IN);
      g_source_set_callback(_fEventSource, G_SOURCE_FUNC(&CImpl::OnEvents), this, nullptr);
      g_source_attach(_fEventSource, _fLoop.Context());
    }
  }
  ~CImpl() {
    _fLoop.timeout_remove(_fLookAgainTimer);
    _fLoop.timeout_remove(_fFlushTimer);
    if (_fEventSource != nullptr) {
      g_source_destroy(_fEventSource);
      g_source_unref(_fEventSource);
    }
  }
  CImpl(const CImpl&) = delete;
  CImpl& operator=(const CImpl&) = delete;

  void Watch(const std::string& named) {
    constexpr std::string_view kScheme = "file://";
    std::string path = UrlForPath(named).substr(kScheme.size());
    struct stat status;
    if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
      CFolder& folder = FolderAt(path);
      folder.is_root = true;
      if (!std::exchange(folder.is_whole, true)) {
        folder.identity.reset();
      }
    } else {
      const size_t slash = path.rfind('/');
      const std::string name = path.substr(slash + 1);
      path.resize(std::max<size_t>(slash, 1));
      CFolder& folder = FolderAt(path);
      folder.named.insert(name);
      if (const auto file = NamedFile(folder, name); folder.identity && file) {
        folder.files.try_emplace(name, StampOf(file->status));
      }
    }
    _fIsInWatch = true;
    LookAt({path});
    _fIsInWatch = false;
  }

  size_t WatchCount() const { return _fByWatch.size(); }
  size_t LookAgainCount() const {
    return static_cast<size_t>(std::count_if(_fFolders.begin(), _fFolders.end(), [](auto& folder) {
      return folder.second->look_again;
    }));
  }

 private:
  CFolder& FolderAt(const std::string& path) {
    auto& folder = _fFolders[path];
    if (folder == nullptr) {
      folder = std::make_unique<CFolder>();
      folder->path = path;
    }
    return *folder;
  }

  CFolder* Find(const std::string& path) {
    const auto found = _fFolders.find(path);
    return found == _fFolders.end() ? nullptr : found->second.get();
  }

  // --- what the system tells ---

  static gboolean OnEvents(gint, GIOCondition, gpointer data) {
    auto& self = *static_cast<CImpl*>(data);
    self._fEvents.Read([&self](const inotify_event& event, const std::string& name) {
      self.NoteEvent(event, name);
    });
    return G_SOURCE_CONTINUE;
  }

  void NoteEvent(const inotify_event& event, const std::string& name) {
    if ((event.mask & IN_Q_OVERFLOW) != 0) {
      // There were more events than the system keeps, so it may be any folder.
      for (const auto& [watch, folder] : _fByWatch) {
        MakeDirty(*folder);
      }
      return;
    }
    const auto found = _fByWatch.find(event.wd);
    if (found == _fByWatch.end()) {
      return;  // from before the watch was ended
    }
    CFolder& folder = *found->second;
    if ((event.mask & IN_IGNORED) != 0) {
      // The system has ended it: the folder is gone. Another one can be in its place by now.
      folder.watch = -1;
      _fByWatch.erase(found);
    }
    if (!name.empty()) {
      if (!Matters(folder, name, event.mask)) {
        return;
      }
      if ((event.mask & IN_ATTRIB) == 0 || folder.folders.contains(name)) {
        folder.touched.insert(name);
      }
    }
    MakeDirty(folder);
  }

  void MakeDirty(const CFolder& folder) {
    _fDirty.insert(folder.path);
    const gint64 now = g_get_monotonic_time();
    _fLastEvent = now;
    if (_fFlushTimer == 0) {
      _fFirstEvent = now;
      StartFlushTimer(std::min(_fOptions.quiet_ms, _fOptions.most_ms));
    }
  }

  // Whether the event can change what is known of the folder. A file that is no Python is written
  // to all the time in some folders, and must cost nothing.
  static bool Matters(const CFolder& folder, const std::string& name, uint32_t events) {
    if (folder.named.contains(name)) {
      return true;
    }
    if (!folder.is_whole) {
      return false;
    }
    if (LeavesFolderOut(name)) {
      return !folder.is_root;
    }
    if (folder.is_left_out || IsPassedOver(name)) {
      return false;
    }
    constexpr uint32_t kOfFiles = IN_MODIFY | IN_CLOSE_WRITE | IN_DELETE | IN_MOVED_FROM;
    return IsPythonName(name) || folder.folders.contains(name) || (events & kOfFiles) == 0;
  }

  void StartFlushTimer(unsigned ms) {
    _fFlushTimer = _fLoop.timeout_add(ms, [this] {
      _fFlushTimer = 0;
      const gint64 due = std::min(_fLastEvent + gint64{_fOptions.quiet_ms} * 1000,
                                  _fFirstEvent + gint64{_fOptions.most_ms} * 1000);
      const gint64 left = due - g_get_monotonic_time();
      if (left > 0) {
        StartFlushTimer(static_cast<unsigned>(left / 1000 + 1));
      } else {
        Flush();
      }
      return false;
    });
  }

  void Flush() {
    const std::set<std::string> dirty = std::exchange(_fDirty, {});
    LookAt({dirty.begin(), dirty.end()});
    TellChanges();
  }

  void LookAgain() {
    std::vector<std::string> paths;
    for (const auto& [path, folder] : _fFolders) {
      // What lies above a root is not watched, and takes the root with it when it is renamed.
      if (folder->look_again || (folder->IsKept() && folder->identity != IdentityAt(path))) {
        paths.push_back(path);
      }
    }
    LookAt(std::move(paths));
    TellChanges();
  }

  void TellChanges() {
    const CTreeChanges changes = std::exchange(_fChanges, {});
    if (!changes.empty() && _fOptions.on_changed) {
      _fOptions.on_changed(changes);
    }
  }

  void Tell(const std::string& path, ETreeChange change) {
    const auto [told, is_new] = _fChanges.try_emplace(path, change);
    if (is_new) {
      return;
    }
    if (change == ETreeChange::kGone && told->second == ETreeChange::kAppeared) {
      _fChanges.erase(told);
    } else if (change == ETreeChange::kGone) {
      told->second = change;
    } else if (told->second == ETreeChange::kGone) {
      told->second = ETreeChange::kEdited;
    }
  }

  // --- looking ---

  // Looks at the folders, and at those below them that are new or were touched; linked ones after
  // all others, so that a folder that the tree has goes by its own name.
  void LookAt(std::vector<std::string> paths) {
    _fToLookAt = std::move(paths);
    while (!_fToLookAt.empty() || !_fLinksToLookAt.empty()) {
      auto& waiting = _fToLookAt.empty() ? _fLinksToLookAt : _fToLookAt;
      const std::string path = std::move(waiting.back());
      waiting.pop_back();
      if (CFolder* const folder = Find(path)) {
        Look(*folder);
      }
    }
  }

  // May end with the folder no longer there.
  void Look(CFolder& folder) {
    folder.look_again = false;
    const auto identity = IdentityAt(folder.path);
    if (folder.identity && identity && *folder.identity != *identity) {
      // Another folder has taken its place, and what is watched is the old one.
      Empty(folder);
    }
    if (identity && !Claim(folder, *identity)) {
      if (folder.is_whole) {
        Drop(folder);
        return;
      }
      folder.look_again = true;
    } else if (folder.watch < 0) {
      StartWatch(folder);
    }
    const CTreeFolder now = Read(folder);
    if (now.error == ENOENT || now.error == ENOTDIR) {
      TellError(folder, now.error, std::strerror(now.error));
      Drop(folder);
      return;
    }
    if (now.error != 0) {
      TellError(folder, now.error, std::strerror(now.error));
    }
    if (now.status.st_nlink == 0) {
      return;  // nothing of it could be read, and what was known stays
    }
    if (identity != IdentityOf(now.status)) {
      _fToLookAt.push_back(folder.path);  // replaced just now
      return;
    }
    const bool is_first_look = !folder.identity;
    folder.identity = identity;
    folder.is_left_out = now.is_left_out;
    if (!folder.look_again) {
      folder.told_error = 0;
    }
    CompareFiles(folder, now.files, is_first_look && _fIsInWatch);
    FollowNamedFolders(folder);
    CompareFolders(folder, now.folders);
    folder.touched.clear();
  }

  // The folder as the tree has it now, and the files in it that were named.
  static CTreeFolder Read(const CFolder& folder) {
    CTreeFolder now;
    if (folder.is_whole) {
      now = ReadTreeFolder(folder.path, folder.is_root);
    } else if (stat(folder.path.c_str(), &now.status) != 0) {
      now.error = errno;
    }
    for (const std::string& name : folder.named) {
      if (auto file = NamedFile(folder, name)) {
        now.files.push_back(std::move(*file));
      }
    }
    return now;
  }

  // What was named and not there can turn out to be a folder.
  void FollowNamedFolders(const CFolder& folder) {
    for (const std::string& name : folder.named) {
      const std::string path = PathInFolder(folder.path, name);
      struct stat status;
      if (stat(path.c_str(), &status) == 0 && S_ISDIR(status.st_mode)) {
        CFolder& named = FolderAt(path);
        if (!std::exchange(named.is_root, true)) {
          named.is_whole = true;
          _fToLookAt.push_back(path);
        }
      }
    }
  }

  static std::optional<CTreeFolder::Entry> NamedFile(const CFolder& folder,
                                                     const std::string& name) {
    const std::string path = PathInFolder(folder.path, name);
    CTreeFolder::Entry file{.name = name};
    file.is_link = lstat(path.c_str(), &file.status) == 0 && S_ISLNK(file.status.st_mode);
    if (stat(path.c_str(), &file.status) == 0 && S_ISREG(file.status.st_mode)) {
      return file;
    }
    return std::nullopt;
  }

  // Whether the folder is the one that stands for the real folder of this identity. Each is
  // followed under one name, so that loops of links do no harm; and watched under one name, since
  // the system has one watch for a real folder.
  bool Claim(const CFolder& folder, const Identity& identity) {
    const auto [claim, is_new] = _fByIdentity.try_emplace(identity, folder.path);
    if (is_new || claim->second == folder.path) {
      return true;
    }
    if (CFolder* const holder = Find(claim->second)) {
      if ((holder->is_whole || !folder.is_whole) && IdentityAt(holder->path) == identity) {
        return false;
      }
      // It was renamed and is still to be looked at, or has to make room.
      StopWatch(*holder);
      _fToLookAt.push_back(holder->path);
    }
    claim->second = folder.path;
    return true;
  }

  void CompareFiles(CFolder& folder, const std::vector<CTreeFolder::Entry>& files,
                    bool new_are_known) {
    std::map<std::string, CFileStamp> known = std::exchange(folder.files, {});
    for (const CTreeFolder::Entry& file : files) {
      const std::string path = PathInFolder(folder.path, file.name);
      const CFileStamp stamp = StampOf(file.status);
      if (!folder.files.emplace(file.name, stamp).second) {
        continue;  // in the tree, and named
      }
      // The system tells of a link, not of what it leads to.
      folder.look_again |= file.is_link;
      const auto before = known.extract(file.name);
      if (before.empty()) {
        if (!new_are_known) {
          Tell(path, ETreeChange::kAppeared);
        }
      } else if (!IsSame(before.mapped(), stamp, folder.watch >= 0 && !file.is_link) ||
                 folder.touched.contains(file.name)) {
        Tell(path, ETreeChange::kEdited);
      }
    }
    for (const auto& [name, stamp] : known) {
      Tell(PathInFolder(folder.path, name), ETreeChange::kGone);
    }
  }

  void CompareFolders(CFolder& folder, const std::vector<CTreeFolder::Entry>& folders) {
    std::set<std::string> known = std::exchange(folder.folders, {});
    for (const CTreeFolder::Entry& below : folders) {
      const std::string path = PathInFolder(folder.path, below.name);
      folder.folders.insert(below.name);
      CFolder& child = FolderAt(path);
      if (known.erase(below.name) == 0 || !child.is_whole || folder.touched.contains(below.name)) {
        child.is_whole = true;
        (below.is_link ? _fLinksToLookAt : _fToLookAt).push_back(path);
      }
    }
    for (const std::string& name : known) {
      if (CFolder* const child = Find(PathInFolder(folder.path, name))) {
        Drop(*child);
      }
    }
  }

  // --- forgetting ---

  // Forgets the folder and all below, and tells of their files. What the user named is kept and
  // looked for again.
  void Drop(CFolder& folder) {
    Empty(folder);
    if (folder.IsKept()) {
      folder.is_whole = folder.is_root;
      folder.look_again = true;
    } else {
      _fFolders.erase(std::string(folder.path));
    }
  }

  void Empty(CFolder& folder) {
    StopWatch(folder);
    CompareFiles(folder, {}, false);
    CompareFolders(folder, {});
    if (folder.identity) {
      const auto claim = _fByIdentity.find(*folder.identity);
      if (claim != _fByIdentity.end() && claim->second == folder.path) {
        _fByIdentity.erase(claim);
      }
    }
    folder.identity.reset();
    folder.touched.clear();
  }

  // --- watching ---

  void StartWatch(CFolder& folder) {
    const int watch = _fEvents.Add(folder.path);
    if (watch < 0) {
      const int error = errno;
      folder.look_again = true;
      if (error == ENOSPC || error == EMFILE) {
        TellNoMoreWatches(folder);
      } else if (error != ENOENT && error != ENOTDIR && error != EACCES) {
        TellError(folder, error, std::strerror(error));
      }  // else reading it is about to find the same
    } else if (_fByWatch.try_emplace(watch, &folder).second) {
      folder.watch = watch;
    } else {
      folder.look_again = true;  // it has just become another name of a folder that is watched
    }
  }

  void StopWatch(CFolder& folder) {
    if (folder.watch >= 0) {
      _fEvents.Remove(folder.watch);
      _fByWatch.erase(folder.watch);
      folder.watch = -1;
    }
  }

  void TellNoMoreWatches(const CFolder& folder) {
    if (!std::exchange(_fToldNoMoreWatches, true)) {
      SendError(folder.path,
                "the system has no more watches for folders (fs.inotify.max_user_watches, "
                "max_user_instances), for this one and those that follow");
    }
  }

  void TellError(CFolder& folder, int error, const std::string& text) {
    folder.look_again = true;
    // A folder of the tree that has gone is no error: its files are told as gone.
    const bool is_gone = error == ENOENT || error == ENOTDIR;
    if (std::exchange(folder.told_error, error) != error && (!is_gone || folder.IsKept())) {
      SendError(folder.path, text);
    }
  }

  void SendError(const std::string& path, const std::string& text) const {
    if (_fOptions.on_error) {
      _fOptions.on_error(path, fmt::format("{}; looked at every {} s instead", text,
                                           _fOptions.look_again_ms / 1000.0));
    }
  }

  CGlibMainLoop& _fLoop;
  const CTreeWatcherOptions _fOptions;
  const CFolderEvents _fEvents;
  GSource* _fEventSource = nullptr;
  std::unordered_map<std::string, std::unique_ptr<CFolder>> _fFolders;
  std::unordered_map<int, CFolder*> _fByWatch;  // those that are watched
  // Which of the folders stands for each real one.
  std::map<Identity, std::string> _fByIdentity;
  bool _fToldNoMoreWatches = false;
  bool _fIsInWatch = false;  // what a first look finds is not told of

  std::vector<std::string> _fToLookAt;
  std::vector<std::string> _fLinksToLookAt;
  std::set<std::string> _fDirty;
  CTreeChanges _fChanges;  // still to be told
  velk::Tag _fFlushTimer = 0;
  velk::Tag _fLookAgainTimer = 0;
  gint64 _fFirstEvent = 0;  // of the burst, in microseconds
  gint64 _fLastEvent = 0;
};

CTreeWatcher::CTreeWatcher(CGlibMainLoop& loop, CTreeWatcherOptions options)
    : _fImpl(std::make_unique<CImpl>(loop, std::move(options))) {}
CTreeWatcher::~CTreeWatcher() = default;

void CTreeWatcher::Watch(const std::string& path) { _fImpl->Watch(path); }
size_t CTreeWatcher::WatchCount() const { return _fImpl->WatchCount(); }
size_t CTreeWatcher::LookAgainCount() const { return _fImpl->LookAgainCount(); }

}  // namespace pysource::standalone
