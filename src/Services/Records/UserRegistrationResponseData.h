#pragma once

#include "Services/Records/WireValue.h"

// The reply to a user registration.
struct UserRegistrationResponseData {
  WireValue returnStatus;
  WireValue returnValue;
  WireValue userId;
  WireValue cloudComputerId;
  WireValue error;
};
