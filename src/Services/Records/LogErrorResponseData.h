#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to LogError: a status and an error.
struct LogErrorResponseData : ReturnStatusResponseData {};
