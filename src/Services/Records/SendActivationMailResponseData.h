#pragma once

#include "Services/Records/WireValue.h"

// The reply to a request that sends a mail (activation mail, password mail).
struct SendActivationMailResponseData {
  WireValue returnStatus;
  WireValue returnMsg;
  WireValue error;
};

using SendPasswordToMailIdResponseData = SendActivationMailResponseData;
