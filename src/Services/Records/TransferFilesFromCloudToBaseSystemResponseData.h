#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to TransferFilesFromCloudToBaseSystem: a status and an error.
struct TransferFilesFromCloudToBaseSystemResponseData : ReturnStatusResponseData {};
