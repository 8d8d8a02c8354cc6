#pragma once

#include <functional>
#include <memory>
#include <mutex>
#include <optional>
#include <string>

#include "Platform/DispatchQueues.h"
#include "Platform/Value.h"
#include "XPCKit/XPCObject.h"
#include "XPCKit/XPCRawConnection.h"

// One raw XPC connection, wrapped: messages arrive as the service's values
// (dictionaries) at the event handler, connection errors at the error handler,
// and values go out as messages. Every operation runs on the connection's own
// serial queue, which is also where the handlers are called.
//
// The wrapper is resumed as soon as it is made, so messages may arrive before
// anyone has set an event handler; those are dropped. A message holding a value
// under "XPCDebugLog" is the peer's debug line: it is logged as "LOG: <value>"
// and not passed on.
class XPCConnection : public std::enable_shared_from_this<XPCConnection> {
 public:
  // The converted message (nullopt when it converts to nothing) and the wrapper.
  using EventHandler =
      std::function<void(const std::optional<Value>& message, XPCConnection& connection)>;
  // The error object, its description and the wrapper.
  using ErrorHandler = std::function<void(const XPCObject& error, const std::string& description,
                                          XPCConnection& connection)>;

  // The key a message that is not a dictionary is sent under.
  static constexpr const char* kContentsKey = "contents";
  // The key of a peer's debug line.
  static constexpr const char* kDebugLogKey = "XPCDebugLog";

  // A connection to the service `serviceName`, wrapped.
  static std::shared_ptr<XPCConnection> initWithServiceName(const std::string& serviceName);
  // Wraps `connection`: installs the receive dispatch, gives it a serial queue
  // named after it as target queue, and resumes it. nullptr for nullptr.
  static std::shared_ptr<XPCConnection> initWithConnection(
      std::shared_ptr<XPCRawConnection> connection);
  // Cancels the connection.
  ~XPCConnection();
  XPCConnection(const XPCConnection&) = delete;
  XPCConnection& operator=(const XPCConnection&) = delete;

  const std::shared_ptr<XPCRawConnection>& connection() const { return connection_; }
  DispatchQueues::SerialQueue dispatchQueue() const;
  // Keeps `queue` and makes it the connection's target queue.
  void setDispatchQueue(DispatchQueues::SerialQueue queue);
  EventHandler eventHandler() const;
  void setEventHandler(EventHandler handler);
  ErrorHandler errorHandler() const;
  void setErrorHandler(ErrorHandler handler);

  // Sets `connection`'s event handler to this wrapper's receive dispatch.
  void receiveConnection(const std::shared_ptr<XPCRawConnection>& connection);
  // On the queue: a value that is not a dictionary goes out wrapped under
  // "contents"; values with no XPC form are left out.
  void sendMessage(Value object);
  // Sends `string` as a debug line, under "XPCDebugLog".
  void _sendLog(const std::string& string);
  // Calls `connection`'s error handler with `object`, its description and `connection`.
  static void invokeErrorHandlerWithObject(const XPCObject& object, XPCConnection& connection);
  // On the queue, suspends or resumes the connection's delivery.
  void suspend();
  void resume();

  // The service's name (nullopt for an accepted peer), and the peer's identity as
  // numbers of their unsigned 32-bit values; each read on the queue.
  std::optional<std::string> connectionName() const;
  Value connectionEUID() const;
  Value connectionEGID() const;
  Value connectionProcessID() const;
  Value connectionAuditSessionID() const;

 private:
  explicit XPCConnection(std::shared_ptr<XPCRawConnection> connection)
      : connection_(std::move(connection)) {}
  // The receive dispatch, for each event of the connection.
  void receive(const XPCObject& event);
  // `read` run on the queue, waited for (at once when already on it).
  template <class Result>
  Result onQueue(const std::function<Result(const XPCRawConnection&)>& read) const;
  // The same for an identity number, as a number of its unsigned 32-bit value.
  Value readOnQueue(const std::function<std::uint32_t(const XPCRawConnection&)>& read) const;

  const std::shared_ptr<XPCRawConnection> connection_;
  mutable std::mutex mutex_;  // guards the members below
  DispatchQueues::SerialQueue dispatchQueue_;
  EventHandler eventHandler_;
  ErrorHandler errorHandler_;
};
