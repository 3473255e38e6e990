#include "pysource/standalone/mainloop/glibmainloop.h"

#include <glib.h>

#include <mutex>
#include <unordered_map>
#include <utility>

namespace pysource::standalone {

static_assert(velk::PRIORITY_HIGH_IDLE == G_PRIORITY_HIGH_IDLE);
static_assert(velk::PRIORITY_DEFAULT_IDLE == G_PRIORITY_DEFAULT_IDLE);
static_assert(velk::PRIORITY_LOW_IDLE == G_PRIORITY_LOW);

class CGlibMainLoop::CImpl {
 public:
  explicit CImpl(GMainContext* context)
      : _fContext(g_main_context_ref(context != nullptr ? context : g_main_context_default())) {}
  ~CImpl() {
    RemoveAll();
    g_main_context_unref(_fContext);
  }
  CImpl(const CImpl&) = delete;
  CImpl& operator=(const CImpl&) = delete;

  // Takes ownership of `source`.
  // REQUIRES: `source` is not attached to a context.
  velk::Tag Add(GSource* source, int priority, velk::Callback callback) {
    auto* const call = new CCall{this, source, 0, std::move(callback)};
    g_source_set_priority(source, priority);
    g_source_set_callback(source, &Dispatch, call,
                          [](gpointer data) { delete static_cast<CCall*>(data); });
    // Locked while attaching: the loop may run a posted call before this returns, and Forget must
    // then find the entry.
    const std::lock_guard lock(_fMutex);
    call->tag = ++_fLastTag;
    _fSources.emplace(call->tag, source);
    g_source_attach(source, _fContext);
    g_source_unref(source);
    return _fLastTag;
  }

  void Remove(velk::Tag tag) {
    if (GSource* const source = Forget(tag)) {
      // Outside the lock, since this destroys the callback and everything that it holds. GLib keeps
      // a running callback until it returns.
      g_source_destroy(source);
    }
  }

  void Run() {
    GMainLoop* const loop = g_main_loop_new(_fContext, FALSE);
    GMainLoop* const outer = std::exchange(_fInnermost, loop);
    g_main_loop_run(loop);
    _fInnermost = outer;
    g_main_loop_unref(loop);
  }
  void Quit() {
    if (_fInnermost != nullptr) {
      g_main_loop_quit(_fInnermost);
    }
  }

  void SetBeforeEach(std::function<void()> before) { _fBeforeEach = std::move(before); }

  size_t PendingCount() const {
    const std::lock_guard lock(_fMutex);
    return _fSources.size();
  }
  GMainContext* Context() const { return _fContext; }

 private:
  // What GLib holds for one source, until the source is destroyed and not running.
  struct CCall {
    CImpl* owner;
    GSource* source;
    velk::Tag tag;
    velk::Callback callback;
  };

  static gboolean Dispatch(gpointer data) {
    auto& call = *static_cast<CCall*>(data);
    if (call.owner->_fBeforeEach) {
      call.owner->_fBeforeEach();
    }
    const bool again = velk::RunCallback(call.callback);
    if (g_source_is_destroyed(call.source)) {
      // Cancelled meanwhile. The owner may be destroyed, so it must not be used.
      return G_SOURCE_REMOVE;
    }
    if (!again) {
      call.owner->Forget(call.tag);
    }
    return again ? G_SOURCE_CONTINUE : G_SOURCE_REMOVE;
  }

  // Removes the tag's entry and returns its source, or null when there is none.
  GSource* Forget(velk::Tag tag) {
    const std::lock_guard lock(_fMutex);
    const auto found = _fSources.find(tag);
    return found == _fSources.end() ? nullptr : _fSources.extract(found).mapped();
  }

  void RemoveAll() {
    // Repeated, since destroying a callback may add another source.
    for (;;) {
      std::unordered_map<velk::Tag, GSource*> doomed;
      {
        const std::lock_guard lock(_fMutex);
        doomed.swap(_fSources);
      }
      if (doomed.empty()) {
        return;
      }
      for (const auto& [tag, source] : doomed) {
        g_source_destroy(source);
      }
    }
  }

  GMainContext* const _fContext;
  std::function<void()> _fBeforeEach;
  GMainLoop* _fInnermost = nullptr;  // the innermost Run in progress
  mutable std::mutex _fMutex;
  // Guarded by _fMutex. The context owns the sources; each source in the map is attached.
  std::unordered_map<velk::Tag, GSource*> _fSources;
  velk::Tag _fLastTag = 0;  // guarded too; our own ids, since GLib's wrap around after 32 bits
};

CGlibMainLoop::CGlibMainLoop(GMainContext* context) : _fImpl(std::make_unique<CImpl>(context)) {}
CGlibMainLoop::~CGlibMainLoop() = default;

velk::Tag CGlibMainLoop::timeout_add(unsigned ms, velk::Callback callback) {
  return _fImpl->Add(g_timeout_source_new(ms), G_PRIORITY_DEFAULT, std::move(callback));
}
void CGlibMainLoop::timeout_remove(velk::Tag tag) { _fImpl->Remove(tag); }
velk::Tag CGlibMainLoop::idle_add(velk::Callback callback, int priority) {
  return _fImpl->Add(g_idle_source_new(), priority, std::move(callback));
}
void CGlibMainLoop::idle_remove(velk::Tag tag) { _fImpl->Remove(tag); }

void CGlibMainLoop::PostFromThread(std::function<void()> work) {
  _fImpl->Add(g_idle_source_new(), G_PRIORITY_DEFAULT, [work = std::move(work)] {
    work();
    return false;
  });
}

void CGlibMainLoop::SetBeforeEach(std::function<void()> before) {
  _fImpl->SetBeforeEach(std::move(before));
}

void CGlibMainLoop::Run() { _fImpl->Run(); }
void CGlibMainLoop::Quit() { _fImpl->Quit(); }
bool CGlibMainLoop::Iterate(bool may_block) {
  return g_main_context_iteration(_fImpl->Context(), may_block ? TRUE : FALSE) != FALSE;
}
size_t CGlibMainLoop::PendingCount() const { return _fImpl->PendingCount(); }
GMainContext* CGlibMainLoop::Context() const { return _fImpl->Context(); }

}  // namespace pysource::standalone
