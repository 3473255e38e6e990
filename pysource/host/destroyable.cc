#include "pysource/host/destroyable.h"

#include <algorithm>
#include <atomic>

#include "pysource/host/assertions.h"
#include "pysource/host/singleton.h"

namespace pysource {
namespace signals {
namespace {

// Ids are never used twice in a process, so an id that was kept too long cannot end the connection
// of another object.
ConnectionId NextConnectionId() {
  static std::atomic<ConnectionId> last{0};
  return ++last;
}

}  // namespace

ConnectionId CConnectionTable::Add(const void* signal, std::shared_ptr<CConnection> connection) {
  Prune();
  connection->signal = signal;
  connection->id = NextConnectionId();
  const ConnectionId id = connection->id;
  _fConnections.push_back(std::move(connection));
  return id;
}

void CConnectionTable::Disconnect(ConnectionId id) {
  for (const auto& connection : _fConnections) {
    if (connection->id == id) {
      connection->live = false;
    }
  }
  Prune();
}

void CConnectionTable::DisconnectAll() {
  for (const auto& connection : _fConnections) {
    connection->live = false;
  }
  Prune();
}

void CConnectionTable::Collect(const void* signal,
                               std::vector<std::shared_ptr<CConnection>>& into) const {
  for (const auto& connection : _fConnections) {
    if (connection->live && connection->signal == signal) {
      into.push_back(connection);
    }
  }
}

size_t CConnectionTable::LiveCount() const {
  return static_cast<size_t>(
      std::count_if(_fConnections.begin(), _fConnections.end(),
                    [](const auto& connection) { return connection->live; }));
}

void CConnectionTable::Prune() {
  // Moved to a local first: destroying a handler can destroy objects whose destructors use this
  // table.
  std::vector<std::shared_ptr<CConnection>> ended;
  const auto first_ended =
      std::stable_partition(_fConnections.begin(), _fConnections.end(),
                            [](const auto& connection) { return connection->live; });
  ended.assign(std::make_move_iterator(first_ended), std::make_move_iterator(_fConnections.end()));
  _fConnections.erase(first_ended, _fConnections.end());
}

}  // namespace signals

CDestroyable::CDestroyable(std::initializer_list<TextView> signal_names)
    : _fSignalNames(signal_names.begin(), signal_names.end()) {}

CDestroyable::~CDestroyable() { EndConnections(); }

void CDestroyable::destroy() {
  if (_fDestroyStarted) {
    return;
  }
  _fDestroyStarted = true;
  try {
    _destroy_impl();
  } catch (...) {
    EndConnections();
    throw;
  }
  EndConnections();
}

void CDestroyable::EndConnections() {
  _fDestroyed = true;
  _fConnections.DisconnectAll();
  for (const auto& owned : std::exchange(_fOwned, {})) {
    if (const auto connection = owned.lock()) {
      // The table that holds it removes it at its next change.
      connection->live = false;
    }
  }
}

void CDestroyable::CheckSignal(const char* name) const {
  Assert(
      std::find(_fSignalNames.begin(), _fSignalNames.end(), TextView(name)) != _fSignalNames.end(),
      "this class does not have the signal");
}

void CDestroyable::Own(const std::shared_ptr<signals::CConnection>& connection) {
  if (_fDestroyed) {
    connection->live = false;
    return;
  }
  // Connections that have ended are removed from time to time, since a long-lived owner may connect
  // to many short-lived objects.
  if (_fOwned.size() == _fOwned.capacity()) {
    std::erase_if(_fOwned, [](const auto& owned) { return owned.expired(); });
    _fOwned.reserve(std::max<size_t>(8, _fOwned.size() * 2));
  }
  _fOwned.push_back(connection);
}

ConnectionId CDestroyable::AddConnection(const void* signal,
                                         std::shared_ptr<signals::CConnection> connection,
                                         CDestroyable* owner) {
  if (owner != nullptr) {
    owner->Own(connection);
  }
  return _fConnections.Add(signal, std::move(connection));
}

ConnectionId CDestroyable::AddClassConnection(const void* signal,
                                              std::shared_ptr<signals::CConnection> connection,
                                              CDestroyable* owner) {
  if (owner != nullptr) {
    owner->Own(connection);
  }
  return singleton::GetSingletons().fClassConnections.fTable.Add(signal, std::move(connection));
}

std::vector<std::shared_ptr<signals::CConnection>> CDestroyable::CollectConnections(
    const void* signal) const {
  std::vector<std::shared_ptr<signals::CConnection>> connections;
  singleton::GetSingletons().fClassConnections.fTable.Collect(signal, connections);
  _fConnections.Collect(signal, connections);
  return connections;
}

void class_disconnect(ConnectionId id) {
  singleton::GetSingletons().fClassConnections.fTable.Disconnect(id);
}

size_t ClassConnectionCount() {
  return singleton::GetSingletons().fClassConnections.fTable.LiveCount();
}

}  // namespace pysource
