#include "XPCKit/XPCConnection.h"

#include <cstdio>
#include <future>

#include "Platform/Log.h"
#include "Platform/ValueError.h"
#include "XPCKit/XPCParse.h"

namespace {

// A value as a debug line shows it: text as it is, numbers in decimal, anything
// else by its kind.
std::string describe(const Value& value) {
  if (const std::string* text = value.string()) return *text;
  if (const Value::Number* number = value.number()) {
    return std::visit(
        [](auto n) {
          if constexpr (std::is_same_v<decltype(n), double>) {
            char buffer[32];
            static_cast<void>(std::snprintf(buffer, sizeof buffer, "%.16g", n));
            return std::string(buffer);
          } else {
            return std::to_string(n);
          }
        },
        *number);
  }
  return "<" + std::string(value.kindName()) + ">";
}

}  // namespace

std::shared_ptr<XPCConnection> XPCConnection::initWithServiceName(const std::string& serviceName) {
  return initWithConnection(XPCRawConnection::createForService(serviceName));
}

std::shared_ptr<XPCConnection> XPCConnection::initWithConnection(
    std::shared_ptr<XPCRawConnection> connection) {
  if (!connection) return nullptr;
  std::shared_ptr<XPCConnection> wrapper(new XPCConnection(connection));
  wrapper->receiveConnection(connection);
  wrapper->setDispatchQueue(
      DispatchQueues::shared().makeSerialQueue(connection->name().value_or("")));
  connection->resume();
  return wrapper;
}

XPCConnection::~XPCConnection() { connection_->cancel(); }

DispatchQueues::SerialQueue XPCConnection::dispatchQueue() const {
  std::lock_guard lock(mutex_);
  return dispatchQueue_;
}

void XPCConnection::setDispatchQueue(DispatchQueues::SerialQueue queue) {
  {
    std::lock_guard lock(mutex_);
    dispatchQueue_ = queue;
  }
  connection_->setTargetQueue(std::move(queue));
}

XPCConnection::EventHandler XPCConnection::eventHandler() const {
  std::lock_guard lock(mutex_);
  return eventHandler_;
}

void XPCConnection::setEventHandler(EventHandler handler) {
  std::lock_guard lock(mutex_);
  eventHandler_ = std::move(handler);
}

XPCConnection::ErrorHandler XPCConnection::errorHandler() const {
  std::lock_guard lock(mutex_);
  return errorHandler_;
}

void XPCConnection::setErrorHandler(ErrorHandler handler) {
  std::lock_guard lock(mutex_);
  errorHandler_ = std::move(handler);
}

void XPCConnection::receiveConnection(const std::shared_ptr<XPCRawConnection>& connection) {
  // The wrapper is reached from the connection's events while it lives, and
  // not kept alive by them.
  std::weak_ptr<XPCConnection> wrapper = weak_from_this();
  connection->setEventHandler([wrapper](const XPCObject& event) {
    if (std::shared_ptr<XPCConnection> self = wrapper.lock()) self->receive(event);
  });
}

void XPCConnection::receive(const XPCObject& event) {
  if (event.type() == XPCObject::Type::kError) {
    if (errorHandler()) invokeErrorHandlerWithObject(event, *this);
    return;
  }
  std::optional<Value> message;
  try {
    message = XPCParse::objectWithXPCObject(event);
  } catch (const ValueError& e) {
    Log::printf("Dropped a message that cannot be converted: %s", e.what());
    return;
  }
  // Every message is a dictionary (the connection refuses anything else).
  const Value* line = message ? message->objectForKey(kDebugLogKey) : nullptr;
  if (line != nullptr) {
    Log::printf("LOG: %s", describe(*line).c_str());
    return;
  }
  if (EventHandler handler = eventHandler()) handler(message, *this);
}

void XPCConnection::sendMessage(Value object) {
  DispatchQueues::dispatchSerial(dispatchQueue(), [self = shared_from_this(),
                                                   object = std::move(object)] {
    const Value message =
        object.dictionary() != nullptr ? object : Value(Value::Dictionary{{kContentsKey, object}});
    std::optional<XPCObject> converted = XPCParse::newXPCObject(message);
    if (converted) self->connection_->sendMessage(*converted);
  });
}

void XPCConnection::_sendLog(const std::string& string) {
  sendMessage(Value::Dictionary{{kDebugLogKey, Value(string)}});
}

void XPCConnection::invokeErrorHandlerWithObject(const XPCObject& object,
                                                 XPCConnection& connection) {
  const std::string description = object.errorDescription();
  if (ErrorHandler handler = connection.errorHandler()) handler(object, description, connection);
}

void XPCConnection::suspend() {
  DispatchQueues::dispatchSerial(dispatchQueue(),
                                 [connection = connection_] { connection->suspend(); });
}

void XPCConnection::resume() {
  DispatchQueues::dispatchSerial(dispatchQueue(),
                                 [connection = connection_] { connection->resume(); });
}

template <class Result>
Result XPCConnection::onQueue(const std::function<Result(const XPCRawConnection&)>& read) const {
  const DispatchQueues::SerialQueue queue = dispatchQueue();
  // Read where it stands when already on the queue: waiting for it would never end.
  if (queue.isCurrent()) return read(*connection_);
  std::promise<Result> value;
  std::future<Result> result = value.get_future();
  DispatchQueues::dispatchSerial(queue, [&] { value.set_value(read(*connection_)); });
  return result.get();
}

Value XPCConnection::readOnQueue(
    const std::function<std::uint32_t(const XPCRawConnection&)>& read) const {
  return Value::integer(onQueue(read));
}

std::optional<std::string> XPCConnection::connectionName() const {
  return onQueue<std::optional<std::string>>([](const XPCRawConnection& c) { return c.name(); });
}

Value XPCConnection::connectionEUID() const {
  return readOnQueue([](const XPCRawConnection& c) { return c.euid(); });
}

Value XPCConnection::connectionEGID() const {
  return readOnQueue([](const XPCRawConnection& c) { return c.egid(); });
}

Value XPCConnection::connectionProcessID() const {
  return readOnQueue([](const XPCRawConnection& c) { return c.pid(); });
}

Value XPCConnection::connectionAuditSessionID() const {
  return readOnQueue([](const XPCRawConnection& c) { return c.auditSessionID(); });
}
