#include "TolvaneDownloader/DASHDownloader/Internal/QVLog.h"

#include "qvc/Log.h"

using qvc::debug::Log;
using qvc::debug::MessageSeverity;

void QVLogError(const std::string& message, const char* file, const char* function, unsigned line) {
  Log::instance().log(MessageSeverity::ERROR, qvc::FastString(message), qvc::qvc_Success, file, function,
                      line);
}

void QVLogInfo(const std::string& message, const char* file, const char* function, unsigned line) {
  Log::instance().log(MessageSeverity::INFO, qvc::FastString(message), qvc::qvc_Success, file, function,
                      line);
}
