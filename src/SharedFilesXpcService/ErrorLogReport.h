#pragma once

#include <exception>
#include <string>

#include "Platform/Value.h"

// Sends one error report to the server's error log: the reporting class and
// method, the exception's reason (absent when it has none), and this computer and
// user from `iAppsPrefs`, the reporter's fresh snapshot of the application's
// preferences. The outcome is not looked at; a report that fails is lost.
class ErrorLogReport {
 public:
  static void send(const std::string& errorClass, const std::string& errorMethod,
                   const std::exception& exception, const Value::Dictionary& iAppsPrefs);
};
