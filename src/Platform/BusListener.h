#pragma once

#include <functional>
#include <memory>
#include <string>

// Serves one method without arguments or results on the session bus (sdbus-c++).
// Each call is handed to the handler with the caller's unique bus name; the call
// is answered when the handler returns, or with an error reply when it throws.
// Calls with arguments and calls to other methods get the bus library's own error
// replies; introspection, peer and properties interfaces come from the library.
class BusListener {
 public:
  struct Address {
    std::string busName;     // well-known name to own, e.g. "Quentara.SharedFilesXpcService"
    std::string objectPath;  // e.g. "/Quentara/SharedFilesXpcService"
    std::string interface;   // e.g. "Quentara.SharedFilesXpcServiceProtocol"
    std::string method;      // e.g. "SharedFile"
  };
  using Handler = std::function<void(const std::string& sender)>;

  // Connects to the session bus ($DBUS_SESSION_BUS_ADDRESS), owns the name and
  // exports the object. Throws std::runtime_error when any of that fails.
  BusListener(const Address& address, Handler handler);
  ~BusListener();
  BusListener(const BusListener&) = delete;
  BusListener& operator=(const BusListener&) = delete;

  // Whether the peer with unique bus name `name` is still on the bus; true when the
  // bus cannot tell. May be called from the handler.
  bool hasPeer(const std::string& name);

  // Serves calls on the calling thread until stop() or until the bus connection
  // is lost; throws std::runtime_error in the latter case.
  void run();
  // Serves calls on a thread of the library's own.
  void runInBackground();
  void stop();

 private:
  struct Impl;
  std::unique_ptr<Impl> impl_;
};
