#pragma once

#include "Services/Records/CheckFileExistsInDownloadsResponseData.h"

// The reply to CheckFileExistsInTransfers: how much of the file the server already holds.
struct CheckFileExistsInTransfersResponseData : CheckFileExistsInDownloadsResponseData {};
