#pragma once

// The status every transport hands to its handlers, and that resume, pause and
// close return. 3 is never produced.
enum ConnectorStatus : int {
  ConnectorStatusSuccess = 0,
  ConnectorStatusNotReachable = 1,
  ConnectorStatusNetworkError = 2,
  ConnectorStatusRequestEncodingFailed = 4,
  ConnectorStatusResponseDecodingFailed = 5,
  ConnectorStatusResumed = 6,
  ConnectorStatusResumeNoTask = 7,
  ConnectorStatusPaused = 8,
  ConnectorStatusPauseNoTask = 9,
  ConnectorStatusCloseNoTask = 10,
  ConnectorStatusClosed = 11,
};
