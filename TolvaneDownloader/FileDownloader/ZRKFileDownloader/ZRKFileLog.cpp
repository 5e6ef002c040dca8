#include "TolvaneDownloader/FileDownloader/ZRKFileDownloader/ZRKFileLog.h"

#include "platform/foundation/Log.h"

#include <cstring>

namespace {

std::string place(const char* file, int line) {
  const char* slash = std::strrchr(file, '/');
  return std::string(" (") + (slash ? slash + 1 : file) + ", " + std::to_string(line) + ")";
}

} // namespace

std::string ZRKLogError(const std::string& message, const char* file, int line) {
  auto text = "ERR: " + message + place(file, line);
  platform::log(text);
  return text;
}

void ZRKLogInfo(const std::string& message, const char* file, int line) {
  platform::log("INFO: " + message + place(file, line));
}

std::string ZRKDescribe(const platform::ErrorRef& error) {
  if (!error)
    return "no error";
  auto text = "Error Domain=" + error->domain().text() + " Code=" + std::to_string(error->code()) + " \"" +
              error->localizedDescription() + "\"";
  if (auto cause = error->underlyingError())
    text += ", because of " + ZRKDescribe(cause);
  return text;
}
