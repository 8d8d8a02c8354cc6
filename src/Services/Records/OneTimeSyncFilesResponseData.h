#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to OneTimeSyncFiles: a status and an error.
struct OneTimeSyncFilesResponseData : ReturnStatusResponseData {};
