#pragma once

#include "Services/Records/SendActivationMailResponseData.h"

// The reply to SendPasswordToMailId: a status, its message and an error.
struct SendPasswordToMailIdResponseData : SendActivationMailResponseData {};
