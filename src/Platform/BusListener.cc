#include "Platform/BusListener.h"

#include <sdbus-c++/sdbus-c++.h>

#include <stdexcept>

struct BusListener::Impl {
  std::unique_ptr<sdbus::IConnection> connection;
  std::unique_ptr<sdbus::IObject> object;
  std::unique_ptr<sdbus::IProxy> bus;  // the bus itself, made at first use
};

BusListener::BusListener(const Address& address, Handler handler)
    : impl_(std::make_unique<Impl>()) {
  try {
    impl_->connection = sdbus::createSessionBusConnection(address.busName);
    impl_->object = sdbus::createObject(*impl_->connection, address.objectPath);
    sdbus::IObject* object = impl_->object.get();
    impl_->object->registerMethod(address.method)
        .onInterface(address.interface)
        .implementedAs([object, handler = std::move(handler)]() {
          const sdbus::Message* call = object->getCurrentlyProcessedMessage();
          try {
            handler(call != nullptr ? call->getSender() : std::string());
          } catch (const std::exception& e) {
            // The library answers the call with this error.
            throw sdbus::Error("org.freedesktop.DBus.Error.Failed", e.what());
          }
        });
    // The analyzer loses track of the vtable the library keeps for the object.
    impl_->object->finishRegistration();  // NOLINT(clang-analyzer-cplusplus.NewDeleteLeaks)
  } catch (const sdbus::Error& e) {
    throw std::runtime_error(std::string("Cannot serve on the session bus: ") + e.what());
  }
}

BusListener::~BusListener() {
  try {
    stop();
    impl_->object.reset();
    impl_->connection.reset();
  } catch (const std::exception&) {  // NOLINT(bugprone-empty-catch): nothing to do while closing
  }
}

bool BusListener::hasPeer(const std::string& name) {
  try {
    if (!impl_->bus) {
      impl_->bus =
          sdbus::createProxy(*impl_->connection, "org.freedesktop.DBus", "/org/freedesktop/DBus");
    }
    bool owned = true;
    impl_->bus->callMethod("NameHasOwner")
        .onInterface("org.freedesktop.DBus")
        .withArguments(name)
        .storeResultsTo(owned);
    return owned;
  } catch (const sdbus::Error&) {
    return true;  // kept for now; asked again at the next new peer
  }
}

void BusListener::run() {
  try {
    impl_->connection->enterEventLoop();
  } catch (const sdbus::Error& e) {
    throw std::runtime_error(std::string("Lost the session bus: ") + e.what());
  }
}

void BusListener::runInBackground() {
  try {
    impl_->connection->enterEventLoopAsync();
  } catch (const sdbus::Error& e) {
    throw std::runtime_error(std::string("Cannot serve on the session bus: ") + e.what());
  }
}

void BusListener::stop() {
  try {
    impl_->connection->leaveEventLoop();
  } catch (const sdbus::Error& e) {
    throw std::runtime_error(std::string("Cannot stop serving: ") + e.what());
  }
}
