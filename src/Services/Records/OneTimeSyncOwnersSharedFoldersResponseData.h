#pragma once

#include "Services/Records/ReturnStatusResponseData.h"

// The reply to OneTimeSyncOwnersSharedFolders: a status and an error.
struct OneTimeSyncOwnersSharedFoldersResponseData : ReturnStatusResponseData {};
