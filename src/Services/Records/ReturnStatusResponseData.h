#pragma once

#include "Services/Records/WireValue.h"

// A reply of a status alone: the shape of every update and notification reply.
struct ReturnStatusResponseData {
  WireValue returnStatus;
  WireValue error;
};

using OneTimeSyncOwnersSharedFoldersResponseData = ReturnStatusResponseData;
using TransferFilesFromCloudToBaseSystemResponseData = ReturnStatusResponseData;
using UpdateFileUploadResponseData = ReturnStatusResponseData;
using OneTimeSyncFilesResponseData = ReturnStatusResponseData;
using LogErrorResponseData = ReturnStatusResponseData;
using UpdateFileExistResponseData = ReturnStatusResponseData;
using UpdateFileSendReceivedResponseData = ReturnStatusResponseData;
using InsertSharedFilesTransferResponseData = ReturnStatusResponseData;
using UpdateBSUploadStreamStartedResponseData = ReturnStatusResponseData;
using UpdateBSUploadStreamFailedResponseData = ReturnStatusResponseData;
using UpdateBSDownloadStreamStartedResponseData = ReturnStatusResponseData;
using UpdateBSDownloadStreamFailedResponseData = ReturnStatusResponseData;
using UpdateBSSendStreamStartedResponseData = ReturnStatusResponseData;
using UpdateBSSendStreamFailedResponseData = ReturnStatusResponseData;
using UpdateBSReceiveStreamStartedResponseData = ReturnStatusResponseData;
using UpdateBSReceiveStreamFailedResponseData = ReturnStatusResponseData;
using UpdateBSFileDeleteResponseData = ReturnStatusResponseData;
