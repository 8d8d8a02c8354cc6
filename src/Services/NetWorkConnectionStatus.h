#pragma once

// The stand-alone network test of the streamed transfers. Unlike
// Reachability::isReachable it also accepts a directly attached network that still
// reports ConnectionRequired.
class NetWorkConnectionStatus {
 public:
  static bool ConectionStatus();
};
