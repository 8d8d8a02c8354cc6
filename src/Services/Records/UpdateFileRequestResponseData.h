#pragma once

#include "Services/Records/WireValue.h"

// The reply to UpdateFileRequest: a status alone, under the capitalised
// `ReturnStatus`, and an error. The replies about received files share its shape.
struct UpdateFileRequestResponseData {
  WireValue ReturnStatus;
  WireValue error;
};
