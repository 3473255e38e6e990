// Signals and the destroy protocol.
//
// A signal is a constant that carries its name, the class that emits it and the types of its
// arguments, so a handler that does not fit does not compile:
//
//   inline constexpr CSignal<CTimer, int> kTicked{"ticked"};      // handlers: void(CTimer&, int)
//   timer.connect(kTicked, [](CTimer& timer, int count) {...});   // this timer
//   class_connect(kTicked, ...);                                  // every timer, also future ones
//
// Emission is synchronous. Class-wide handlers run first, then those of the instance, each in order
// of connection. A handler may connect, disconnect, emit, call back into the emitter and destroy()
// it. A handler that is connected during an emission is not called in it; one that is disconnected
// is not called any more. If a handler throws, the exception reaches the caller of emit, and later
// handlers are not called.
//
// REQUIRES: all calls come from one thread.
#pragma once

#include <cstdint>
#include <functional>
#include <initializer_list>
#include <memory>
#include <utility>
#include <vector>

#include "pysource/host/text.h"

namespace pysource {

class CDestroyable;

// A signal is identified by its address.
// REQUIRES: a signal is declared as one inline constant.
template <class Emitter, class... Args>
struct CSignal {
  using Handler = std::function<void(Emitter&, Args...)>;
  const char* name;
};

using ConnectionId = uint64_t;

namespace signals {

// One handler. The handler's type is that of the signal under which it is filed.
struct CConnection {
  virtual ~CConnection() = default;
  const void* signal = nullptr;
  ConnectionId id = 0;
  bool live = true;
};

template <class Handler>
struct CTypedConnection final : CConnection {
  explicit CTypedConnection(Handler h) : handler(std::move(h)) {}
  Handler handler;
};

// The connections of one object, or of all classes, in order of connection.
class CConnectionTable {
 public:
  ConnectionId Add(const void* signal, std::shared_ptr<CConnection> connection);
  // Ends the connection. An unknown or ended one is not an error.
  void Disconnect(ConnectionId id);
  void DisconnectAll();
  // Appends the live connections of the signal.
  void Collect(const void* signal, std::vector<std::shared_ptr<CConnection>>& into) const;
  size_t LiveCount() const;

 private:
  void Prune();
  std::vector<std::shared_ptr<CConnection>> _fConnections;
};

}  // namespace signals

// All class-wide connections. The singletons hold them, so that a test with its own singletons
// leaves no handler behind.
class CClassConnections {
 public:
  signals::CConnectionTable fTable;
};

// Base of objects that emit signals and that are shut down at a definite moment, by destroy().
class CDestroyable {
 public:
  // `signal_names` are the signals that the class adds to those of its base.
  explicit CDestroyable(std::initializer_list<TextView> signal_names);
  // Ends the connections, as destroy() does, but cannot call _destroy_impl any more.
  // REQUIRES: a class with its own _destroy_impl calls destroy() in its own destructor.
  virtual ~CDestroyable();
  CDestroyable(const CDestroyable&) = delete;
  CDestroyable& operator=(const CDestroyable&) = delete;

  // Calls _destroy_impl, then ends all connections to this object's signals and all connections
  // that this object owns (connect_while_alive). Only the first call does anything. The connections
  // end even if _destroy_impl throws.
  void destroy();
  bool destroyed() const noexcept { return _fDestroyed; }

  // Calls the handlers of the signal with this object and the arguments.
  template <class Emitter, class... Params, class... Args>
  void emit(const CSignal<Emitter, Params...>& signal, Args&&... args) {
    CheckSignal(signal.name);
    using Handler = typename CSignal<Emitter, Params...>::Handler;
    auto& self = static_cast<Emitter&>(*this);
    for (const auto& connection : CollectConnections(&signal)) {
      if (connection->live) {
        // Not forwarded: every handler gets the same arguments.
        static_cast<const signals::CTypedConnection<Handler>&>(*connection).handler(self, args...);
      }
    }
  }

  // Connects the handler to the signal of this object, until it is disconnected or this object is
  // destroyed.
  template <class Emitter, class... Params>
  ConnectionId connect(const CSignal<Emitter, Params...>& signal,
                       typename CSignal<Emitter, Params...>::Handler handler) {
    CheckSignal(signal.name);
    return AddConnection(&signal, Wrap(signal, std::move(handler)), nullptr);
  }
  // The same, but the connection ends with `owner` at the latest.
  template <class Emitter, class... Params>
  ConnectionId connect_while_alive(const CSignal<Emitter, Params...>& signal,
                                   typename CSignal<Emitter, Params...>::Handler handler,
                                   CDestroyable& owner) {
    CheckSignal(signal.name);
    return AddConnection(&signal, Wrap(signal, std::move(handler)), &owner);
  }
  // Ends a connection of this object. An unknown or ended one is not an error.
  void disconnect(ConnectionId id) { _fConnections.Disconnect(id); }

  size_t ConnectionCount() const { return _fConnections.LiveCount(); }

 protected:
  // What the class does in destroy(). Called at most once.
  virtual void _destroy_impl() {}

 private:
  template <class Emitter, class... Params>
  friend ConnectionId class_connect(const CSignal<Emitter, Params...>&,
                                    typename CSignal<Emitter, Params...>::Handler);
  template <class Emitter, class... Params>
  friend ConnectionId class_connect_while_alive(const CSignal<Emitter, Params...>&,
                                                typename CSignal<Emitter, Params...>::Handler,
                                                CDestroyable&);

  template <class Emitter, class... Params>
  static std::shared_ptr<signals::CConnection> Wrap(
      const CSignal<Emitter, Params...>& /*signal*/,
      typename CSignal<Emitter, Params...>::Handler handler) {
    using Handler = typename CSignal<Emitter, Params...>::Handler;
    return std::make_shared<signals::CTypedConnection<Handler>>(std::move(handler));
  }

  static ConnectionId AddClassConnection(const void* signal,
                                         std::shared_ptr<signals::CConnection> connection,
                                         CDestroyable* owner);
  ConnectionId AddConnection(const void* signal, std::shared_ptr<signals::CConnection> connection,
                             CDestroyable* owner);
  // Makes the connection end with this object; ends it now if this object is already destroyed.
  void Own(const std::shared_ptr<signals::CConnection>& connection);
  void CheckSignal(const char* name) const;
  std::vector<std::shared_ptr<signals::CConnection>> CollectConnections(const void* signal) const;
  void EndConnections();

  std::vector<Text> _fSignalNames;
  signals::CConnectionTable _fConnections;
  // Connections of other objects that end with this one.
  std::vector<std::weak_ptr<signals::CConnection>> _fOwned;
  bool _fDestroyStarted = false;
  bool _fDestroyed = false;
};

// Connects the handler to the signal of every object that emits it, present and future.
template <class Emitter, class... Params>
ConnectionId class_connect(const CSignal<Emitter, Params...>& signal,
                           typename CSignal<Emitter, Params...>::Handler handler) {
  return CDestroyable::AddClassConnection(&signal, CDestroyable::Wrap(signal, std::move(handler)),
                                          nullptr);
}
// The same, but the connection ends with `owner` at the latest.
template <class Emitter, class... Params>
ConnectionId class_connect_while_alive(const CSignal<Emitter, Params...>& signal,
                                       typename CSignal<Emitter, Params...>::Handler handler,
                                       CDestroyable& owner) {
  return CDestroyable::AddClassConnection(&signal, CDestroyable::Wrap(signal, std::move(handler)),
                                          &owner);
}
// Ends a class-wide connection. An unknown or ended one is not an error.
void class_disconnect(ConnectionId id);
// The number of live class-wide connections.
size_t ClassConnectionCount();

}  // namespace pysource
