#include "XPCKit/XPCRawConnection.h"

#include <unistd.h>

#include <condition_variable>
#include <future>
#include <mutex>
#include <system_error>
#include <thread>
#include <vector>

#include "Platform/Environment.h"
#include "Platform/Log.h"
#include "XPCKit/XPCWireFormat.h"

// What the connection and its reading thread share; the thread holds it while
// it runs, so the connection may go first.
struct XPCRawConnection::Channel {
  std::optional<std::string> name;
  std::unique_ptr<MessageSocket> socket;  // nullptr when the service could not be reached
  MessageSocket::Credentials credentials;

  std::mutex mutex;  // guards the members below
  std::condition_variable changed;
  EventHandler handler;
  DispatchQueues::SerialQueue queue;
  int suspensions = 1;
  bool started = false;
  bool cancelled = false;
  bool ended = false;  // connection invalid or interrupted was delivered

  // Queues `event` for the handler, unless the connection was cancelled; then
  // `after`, when given, on the same queue, whether it was delivered or not.
  static void deliver(const std::shared_ptr<Channel>& channel, XPCObject event,
                      const std::function<void()>& after = nullptr) {
    std::lock_guard lock(channel->mutex);
    DispatchQueues::dispatchSerial(channel->queue, [channel, event = std::move(event), after] {
      struct Afterwards {
        const std::function<void()>& after;
        ~Afterwards() {
          if (after) after();
        }
      } afterwards{after};
      EventHandler handler;
      {
        std::lock_guard inner(channel->mutex);
        if (!channel->cancelled) handler = channel->handler;
      }
      if (handler) handler(event);
    });
  }
  // Delivers `error` as the connection's last event.
  static void end(const std::shared_ptr<Channel>& channel, XPCObject::ConnectionError error) {
    {
      std::lock_guard lock(channel->mutex);
      channel->ended = true;
    }
    deliver(channel, XPCObject::error(error));
  }
  // Waits while delivery is suspended; false once cancelled.
  bool waitUntilRunning() {
    std::unique_lock lock(mutex);
    changed.wait(lock, [&] { return suspensions == 0 || cancelled; });
    return !cancelled;
  }
};

std::string XPCRawConnection::socketPathForService(const std::string& name) {
  const std::string& runtime = Environment::current()->runtimeFolder;
  if (runtime.empty()) return "/tmp/" + name + "." + std::to_string(::getuid()) + ".xpc";
  return runtime + "/" + name + ".xpc";
}

std::shared_ptr<XPCRawConnection> XPCRawConnection::createForService(const std::string& name) {
  auto channel = std::make_shared<Channel>();
  channel->name = name;
  channel->queue = DispatchQueues::shared().makeSerialQueue(name);
  try {
    channel->socket = MessageSocket::connectTo(socketPathForService(name));
    channel->credentials = channel->socket->peerCredentials();
  } catch (const std::runtime_error& e) {
    Log::printf("Cannot reach the service %s: %s", name.c_str(), e.what());
  }
  return std::shared_ptr<XPCRawConnection>(new XPCRawConnection(std::move(channel)));
}

std::shared_ptr<XPCRawConnection> XPCRawConnection::createForPeer(
    std::unique_ptr<MessageSocket> socket) {
  auto channel = std::make_shared<Channel>();
  channel->queue = DispatchQueues::shared().makeSerialQueue();
  channel->credentials = socket->peerCredentials();
  channel->socket = std::move(socket);
  return std::shared_ptr<XPCRawConnection>(new XPCRawConnection(std::move(channel)));
}

XPCRawConnection::~XPCRawConnection() { cancel(); }

const std::optional<std::string>& XPCRawConnection::name() const { return channel_->name; }

void XPCRawConnection::setEventHandler(EventHandler handler) {
  std::lock_guard lock(channel_->mutex);
  channel_->handler = std::move(handler);
}

void XPCRawConnection::setTargetQueue(DispatchQueues::SerialQueue queue) {
  std::lock_guard lock(channel_->mutex);
  channel_->queue = std::move(queue);
}

void XPCRawConnection::resume() {
  bool start = false;
  {
    std::lock_guard lock(channel_->mutex);
    if (channel_->suspensions > 0) --channel_->suspensions;
    start = channel_->suspensions == 0 && !channel_->started && !channel_->cancelled;
    channel_->started = channel_->started || start;
  }
  channel_->changed.notify_all();
  if (!start) return;
  if (!channel_->socket) {
    Channel::end(channel_, XPCObject::ConnectionError::kInvalid);
    return;
  }
  try {
    std::thread([channel = channel_] { read(channel); }).detach();
  } catch (const std::system_error& e) {
    Log::printf("Cannot start reading a connection: %s", e.what());
    channel_->socket->close();
    Channel::end(channel_, XPCObject::ConnectionError::kInvalid);
  }
}

void XPCRawConnection::suspend() {
  std::lock_guard lock(channel_->mutex);
  ++channel_->suspensions;
}

void XPCRawConnection::cancel() {
  bool reading = false;
  {
    std::lock_guard lock(channel_->mutex);
    if (channel_->cancelled) return;
    channel_->cancelled = true;
    reading = channel_->started;
  }
  channel_->changed.notify_all();
  if (!channel_->socket) return;
  // A reading thread wakes to the shut-down socket and closes it itself.
  if (reading) {
    channel_->socket->shutDown();
  } else {
    channel_->socket->close();
  }
}

void XPCRawConnection::sendMessage(const XPCObject& message) {
  std::string why = "the service cannot be reached";
  try {
    XPCWireFormat::Encoded encoded = XPCWireFormat::encode(message);
    if (channel_->socket && channel_->socket->send(encoded.bytes, encoded.descriptors, why)) return;
  } catch (const XPCWireFormat::Refused& e) {
    why = e.what();
  }
  Log::printf("Dropped a message that cannot be sent: %s", why.c_str());
}

std::uint32_t XPCRawConnection::euid() const { return channel_->credentials.euid; }
std::uint32_t XPCRawConnection::egid() const { return channel_->credentials.egid; }
std::uint32_t XPCRawConnection::pid() const { return channel_->credentials.pid; }
std::uint32_t XPCRawConnection::auditSessionID() const {
  return channel_->credentials.auditSessionID;
}

void XPCRawConnection::read(const std::shared_ptr<Channel>& channel) {
  const bool accepted = !channel->name;
  for (;;) {
    MessageSocket::Received received = channel->socket->receive();
    std::string refusal = received.why;
    if (received.outcome == MessageSocket::Received::Outcome::kMessage) {
      try {
        XPCObject message = XPCWireFormat::decode(received.bytes, received.descriptors);
        if (message.type() != XPCObject::Type::kDictionary) {
          throw XPCWireFormat::Refused("a message that is not a dictionary");
        }
        received.descriptors.clear();  // the message holds what it names
        if (!channel->waitUntilRunning()) break;
        Channel::deliver(channel, std::move(message));
        continue;
      } catch (const XPCWireFormat::Refused& e) {
        refusal = e.what();
      }
    } else if (received.outcome == MessageSocket::Received::Outcome::kClosed) {
      channel->socket->close();
      Channel::end(channel, accepted ? XPCObject::ConnectionError::kInvalid
                                     : XPCObject::ConnectionError::kInterrupted);
      return;
    }
    Log::printf("Closed a connection whose peer sent what is not a message: %s", refusal.c_str());
    channel->socket->close();
    Channel::end(channel, XPCObject::ConnectionError::kInvalid);
    return;
  }
  channel->socket->close();
}

void XPCRawConnection::main(const std::string& name, const PeerHandler& handler) {
  MessageSocket::Listener listener(socketPathForService(name));
  std::vector<std::weak_ptr<Channel>> handedOver;
  while (std::unique_ptr<MessageSocket> socket = listener.accept()) {
    std::erase_if(handedOver, [](const std::weak_ptr<Channel>& c) { return c.expired(); });
    std::shared_ptr<XPCRawConnection> peer = createForPeer(std::move(socket));
    handedOver.push_back(peer->channel_);
    handler(std::move(peer));
  }

  std::vector<std::future<void>> handled;
  for (const std::weak_ptr<Channel>& weak : handedOver) {
    std::shared_ptr<Channel> channel = weak.lock();
    if (!channel) continue;
    {
      std::lock_guard lock(channel->mutex);
      if (channel->ended || channel->cancelled) continue;
    }
    auto done = std::make_shared<std::promise<void>>();
    handled.push_back(done->get_future());
    Channel::deliver(channel, XPCObject::error(XPCObject::ConnectionError::kTerminationImminent),
                     [done] { done->set_value(); });
  }
  for (std::future<void>& future : handled) future.wait();
}
