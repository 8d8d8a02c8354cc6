#pragma once

// What the desktop application may ask of the service: one message, no arguments,
// no reply.
class SharedFilesXpcServiceProtocol {
 public:
  virtual ~SharedFilesXpcServiceProtocol() = default;
  virtual void SharedFile() = 0;
};
