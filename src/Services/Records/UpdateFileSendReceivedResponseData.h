#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to UpdateFileSendReceived: a status and an error.
struct UpdateFileSendReceivedResponseData : ReturnStatusResponseData {};
