#pragma once

#include "Services/Records/UpdateFileRequestResponseData.h"

// The reply to UpdateFileReceived: a status (as `ReturnStatus`) and an error.
struct UpdateFileReceivedResponseData : UpdateFileRequestResponseData {};
