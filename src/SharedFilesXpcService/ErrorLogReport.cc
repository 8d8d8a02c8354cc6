#include "SharedFilesXpcService/ErrorLogReport.h"

#include "Platform/Readings.h"
#include "Services/Records/LogErrorResponseData.h"
#include "Services/RestInterface.h"

void ErrorLogReport::send(const std::string& errorClass, const std::string& errorMethod,
                          const std::exception& exception, const Value::Dictionary& iAppsPrefs) {
  LogErrorQuery query;
  query.errorClass = errorClass;
  query.errorMethod = errorMethod;
  std::string reason = exception.what();
  if (!reason.empty()) query.errorMessage = reason;
  query.computerId = Readings::requestValue(Value::objectForKey(iAppsPrefs, "computerIdKey"));
  query.userId = Readings::requestValue(Value::objectForKey(iAppsPrefs, "userIdKey"));
  RestInterface::asyncLogError(
      query, [](const OperationResult<LogErrorResponseData>& /*result*/, int /*status*/) {});
}
