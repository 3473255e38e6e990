#include "pysource/standalone/files/treewatcher.h"

#include <fmt/format.h>
#include <gio/gio.h>
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
#include "pysource/standalone/files/treefolder.h"
#include "pysource/standalone/scanner/sourcefile.h"

namespace pysource::standalone {
namespace {

using Identity = std::pair<dev_t, ino_t>;

Identity IdentityOf(const struct stat& status) { return {status.st_dev, status.st_ino}; }

std::optional<Identity> IdentityAt(const std::string& path) {
  struct stat status;
  return stat(path.c_str(), &status) == 0 ? std::optional(IdentityOf(status)) : std::nullopt;
}

// What tells one state of a file from another.
struct CStamp {
  DiskTime disk_mtime = 0;
  off_t size = 0;
  Identity identity;
  friend bool operator==(const CStamp&, const CStamp&) = default;
};

CStamp StampOf(const struct stat& status) {
  return {DiskTimeOf(status), status.st_size, IdentityOf(status)};
}

// Asks the system whether it would watch one more folder. GIO does not say so: when it gets no
// watch it tries again in silence.
class CWatchProbe {
 public:
  CWatchProbe() : _fFd(inotify_init1(IN_NONBLOCK | IN_CLOEXEC)) {}
  ~CWatchProbe() {
    if (_fFd >= 0) {
      close(_fFd);
    }
  }
  CWatchProbe(const CWatchProbe&) = delete;
  CWatchProbe& operator=(const CWatchProbe&) = delete;

  // 0, or the errno that a watch fails with.
  int Try(const std::string& folder) const {
    // Without an instance of inotify GIO gets none either.
    const int watch =
        _fFd < 0 ? -1 : inotify_add_watch(_fFd, folder.c_str(), IN_DELETE_SELF | IN_ONLYDIR);
    if (watch < 0) {
      return _fFd < 0 ? EMFILE : errno;
    }
    inotify_rm_watch(_fFd, watch);
    // Removing a watch leaves an event.
    std::array<char, 4096> events;
    while (read(_fFd, events.data(), events.size()) > 0) {
    }
    return 0;
  }

 private:
  const int _fFd;
};

// What is known of one folder.
struct CFolder {
  std::string path;
  bool is_root = false;   // named by the user, and so kept when it is gone
  bool is_whole = false;  // all of the tree below is watched; else just the files that are named
  std::set<std::string> named;  // files that the user has named
  bool is_left_out = false;
  bool look_again = false;
  int told_error = 0;  // the errno that was told last, 0 when all was well since

  std::optional<Identity> identity;     // absent until it was read, and while it is not there
  std::map<std::string, CStamp> files;  // by name
  std::set<std::string> folders;        // names of those below that may be in the watcher's list
  std::set<std::string> touched;        // names that the system told of since the last look

  GFileMonitor* monitor = nullptr;  // null while the folder is not watched
  void* owner = nullptr;            // the watcher, for the callback

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
  }
  ~CImpl() {
    _fLoop.timeout_remove(_fLookAgainTimer);
    _fLoop.timeout_remove(_fFlushTimer);
    for (auto& [path, folder] : _fFolders) {
      StopMonitor(*folder);
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

  size_t WatchCount() const {
    return static_cast<size_t>(std::count_if(_fFolders.begin(), _fFolders.end(), [](auto& folder) {
      return folder.second->monitor != nullptr;
    }));
  }
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
      folder->owner = this;
    }
    return *folder;
  }

  CFolder* Find(const std::string& path) {
    const auto found = _fFolders.find(path);
    return found == _fFolders.end() ? nullptr : found->second.get();
  }

  // --- what the system tells ---

  static void OnEvent(GFileMonitor*, GFile* file, GFile* other, GFileMonitorEvent type,
                      gpointer data) {
    CFolder& folder = *static_cast<CFolder*>(data);
    CImpl& self = *static_cast<CImpl*>(folder.owner);
    for (GFile* const said : {file, other}) {
      const char* const path = said == nullptr ? nullptr : g_file_peek_path(said);
      if (path != nullptr) {
        self.NoteEvent(folder, path, type);
      }
    }
  }

  void NoteEvent(CFolder& folder, const std::string& path, GFileMonitorEvent type) {
    if (path != folder.path) {
      const size_t slash = path.rfind('/');
      const std::string name = path.substr(slash + 1);
      if (path != PathInFolder(folder.path, name) || !Matters(folder, name, type)) {
        return;
      }
      if (type != G_FILE_MONITOR_EVENT_ATTRIBUTE_CHANGED || folder.folders.contains(name)) {
        folder.touched.insert(name);
      }
    }
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
  static bool Matters(const CFolder& folder, const std::string& name, GFileMonitorEvent type) {
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
    return IsPythonName(name) || folder.folders.contains(name) ||
           (type != G_FILE_MONITOR_EVENT_CHANGED &&
            type != G_FILE_MONITOR_EVENT_CHANGES_DONE_HINT && type != G_FILE_MONITOR_EVENT_DELETED);
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
    } else if (folder.monitor == nullptr) {
      StartMonitor(folder);
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
  // GIO ends all watches of a real folder with the first of them.
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
      StopMonitor(*holder);
      _fToLookAt.push_back(holder->path);
    }
    claim->second = folder.path;
    return true;
  }

  void CompareFiles(CFolder& folder, const std::vector<CTreeFolder::Entry>& files,
                    bool new_are_known) {
    std::map<std::string, CStamp> known = std::exchange(folder.files, {});
    for (const CTreeFolder::Entry& file : files) {
      const std::string path = PathInFolder(folder.path, file.name);
      const CStamp stamp = StampOf(file.status);
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
      } else if (before.mapped() != stamp || folder.touched.contains(file.name)) {
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
    StopMonitor(folder);
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

  void StartMonitor(CFolder& folder) {
    if (const int error = _fProbe.Try(folder.path); error != 0) {
      folder.look_again = true;
      if (error == ENOSPC || error == EMFILE) {
        TellNoMoreWatches(folder);
      } else if (error != ENOENT && error != ENOTDIR && error != EACCES) {
        TellError(folder, error, std::strerror(error));
      }  // else reading it is about to find the same
      return;
    }
    // The local file system alone: the default one may start a session bus for a path.
    GFile* const file = g_vfs_get_file_for_path(g_vfs_get_local(), folder.path.c_str());
    GError* error = nullptr;
    // Events go to the context that is the thread's default when the monitor is made.
    g_main_context_push_thread_default(_fLoop.Context());
    folder.monitor = g_file_monitor_directory(file, G_FILE_MONITOR_WATCH_MOVES, nullptr, &error);
    g_main_context_pop_thread_default(_fLoop.Context());
    g_object_unref(file);
    if (folder.monitor == nullptr) {
      TellError(folder, EIO, error->message);
      g_error_free(error);
      return;
    }
    // GIO would hold repeated changes of a file back for 800 ms; bursts are gathered here.
    g_file_monitor_set_rate_limit(folder.monitor, 0);
    g_signal_connect(folder.monitor, "changed", G_CALLBACK(&CImpl::OnEvent), &folder);
  }

  static void StopMonitor(CFolder& folder) {
    if (folder.monitor != nullptr) {
      g_signal_handlers_disconnect_by_data(folder.monitor, &folder);
      g_file_monitor_cancel(folder.monitor);
      g_object_unref(folder.monitor);
      folder.monitor = nullptr;
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
  const CWatchProbe _fProbe;
  std::unordered_map<std::string, std::unique_ptr<CFolder>> _fFolders;
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
