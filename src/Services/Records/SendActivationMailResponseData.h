#pragma once

#include "Services/Records/WireValue.h"

// The reply to SendActivationMail: a status, its message and an error. The
// password mail's reply (SendPasswordToMailIdResponseData) has the same shape.
struct SendActivationMailResponseData {
  WireValue returnStatus;
  WireValue returnMsg;
  WireValue error;
};
