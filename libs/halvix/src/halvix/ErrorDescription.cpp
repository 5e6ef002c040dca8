#include "halvix/ErrorDescription.h"

#include <algorithm>
#include <cstddef>
#include <map>
#include <string_view>
#include <utility>

namespace halvix {

namespace {

// Reasons are chains that others build; what nobody would read to its end is cut.
constexpr int maximumDepth = 12;
constexpr std::size_t maximumPiece = 400;

constexpr std::string_view httpDomain = "QVDownloadHTTPErrorDomain";
constexpr std::string_view downloadDomain = "QVDownloadErrorDomain";
constexpr std::int64_t qualityFailed = -1001;
constexpr std::int64_t setFailed = -1002;

using ResourceErrors = std::map<std::size_t, platform::ErrorRef>;
using QualityErrors = std::map<std::string, platform::ErrorRef>;

/// One line of bounded length: texts may quote what a server sent.
std::string cleaned(std::string_view text) {
  std::string line;
  line.reserve(text.size());
  for (char c : text) {
    const bool control = static_cast<unsigned char>(c) < 0x20 || c == 0x7f;
    if (control || c == ' ') {
      if (!line.empty() && line.back() != ' ')
        line += ' ';
    } else {
      line += c;
    }
  }
  if (line.size() > maximumPiece) {
    std::size_t end = maximumPiece;
    while (end > 0 && (static_cast<unsigned char>(line[end]) & 0xc0) == 0x80)
      --end;
    line.resize(end);
    line += "…";
  }
  while (!line.empty() && (line.back() == ' ' || line.back() == '.'))
    line.pop_back();
  return line;
}

const char* urlErrorText(std::int64_t code) {
  switch (code) {
  case platform::NSURLErrorCancelled:
    return "cancelled";
  case platform::NSURLErrorBadURL:
    return "bad URL";
  case platform::NSURLErrorTimedOut:
    return "timed out";
  case platform::NSURLErrorUnsupportedURL:
    return "unsupported URL";
  case platform::NSURLErrorCannotFindHost:
    return "host not found";
  case platform::NSURLErrorCannotConnectToHost:
    return "cannot connect to the host";
  case platform::NSURLErrorNetworkConnectionLost:
    return "connection lost";
  case platform::NSURLErrorHTTPTooManyRedirects:
    return "too many redirects";
  case platform::NSURLErrorNotConnectedToInternet:
    return "no network";
  case platform::NSURLErrorBadServerResponse:
    return "bad server response";
  case platform::NSURLErrorZeroByteResource:
    return "empty response";
  case platform::NSURLErrorSecureConnectionFailed:
    return "no secure connection";
  case platform::NSURLErrorServerCertificateUntrusted:
    return "the server's certificate is not trusted";
  default:
    return nullptr;
  }
}

std::string ownText(const platform::Error& error) {
  std::string text;
  if (error.domain().text() == httpDomain) {
    text = "HTTP status " + std::to_string(error.code());
    const std::string* status = error.value<std::string>("QVStatusMessage");
    if (status && !status->empty())
      text += " \"" + cleaned(*status) + "\"";
  } else if (!error.value<std::string>(platform::NSLocalizedDescriptionKey) &&
             error.domain() == platform::NSURLErrorDomain && urlErrorText(error.code())) {
    text = urlErrorText(error.code());
  } else {
    text = cleaned(error.localizedDescription());
  }
  if (const std::string* url = error.value<std::string>(platform::NSURLErrorFailingURLStringErrorKey)) {
    const std::string shown = cleaned(urlForDisplay(*url));
    if (!shown.empty() && text.find(shown) == std::string::npos)
      text += " (" + shown + ")";
  }
  return text;
}

void append(std::string& line, const std::string& piece) {
  // A reason that only repeats is no reason.
  if (piece.empty() || line.find(piece) != std::string::npos)
    return;
  if (!line.empty())
    line += ": ";
  line += piece;
}

std::string othersText(std::size_t count, const char* singular, const char* plural) {
  if (count <= 1)
    return {};
  return " (and " + std::to_string(count - 1) + " more " + (count == 2 ? singular : plural) + ")";
}

std::string render(const platform::Error& error, int depth) {
  if (depth >= maximumDepth)
    return {};
  auto inner = [depth](const platform::ErrorRef& cause) {
    return cause ? render(*cause, depth + 1) : std::string("unknown reason");
  };
  if (error.domain().text() == downloadDomain) {
    if (const auto* errors = error.value<QualityErrors>("QVQualityErrors");
        errors && !errors->empty() && error.code() == setFailed)
      return "quality \"" + cleaned(errors->begin()->first) + "\": " + inner(errors->begin()->second) +
             othersText(errors->size(), "quality", "qualities");
    if (const auto* errors = error.value<ResourceErrors>("QVResourceErrors");
        errors && !errors->empty() && error.code() == qualityFailed)
      return "resource " + std::to_string(errors->begin()->first) + ": " + inner(errors->begin()->second) +
             othersText(errors->size(), "resource", "resources");
  }
  std::string line = ownText(error);
  if (const platform::ErrorRef cause = error.underlyingError())
    append(line, render(*cause, depth + 1));
  return line;
}

} // namespace

std::string describeError(const platform::ErrorRef& error) {
  return error ? render(*error, 0) : std::string();
}

std::string describeError(const QVErrorRef& error) {
  std::string line;
  int depth = 0;
  for (const QVError* current = error.get(); current && depth < maximumDepth; ++depth) {
    append(line, cleaned(current->message()));
    if (current->platformParent())
      append(line, render(*current->platformParent(), depth));
    current = current->parent().get();
  }
  return line;
}

std::string urlForDisplay(const std::string& url) {
  std::string shown = url.substr(0, url.find_first_of("?#"));
  if (auto scheme = shown.find("://"); scheme != std::string::npos) {
    const std::size_t start = scheme + 3;
    const std::size_t end = std::min(shown.find('/', start), shown.size());
    if (auto at = shown.rfind('@', end); at != std::string::npos && at >= start && at < end)
      shown.erase(start, at + 1 - start);
  }
  return shown;
}

} // namespace halvix
