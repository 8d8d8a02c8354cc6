#pragma once

#include "Services/Records/WireValue.h"

// Tells the server that a send finished.
// The capitalised property name is the record's interface.
struct UpdateFileSendReceivedQuery {
  WireValue SharedFileTransferID;
};
