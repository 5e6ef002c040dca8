#pragma once

#include "platform/foundation/Exception.h"

#include <exception>
#include <utility>

/// Runs `work` and answers its result; what the manifest library throws leaves as the room's own exception,
/// with the library's message as its reason.
template <class Work> auto QVTranslateExceptions(Work&& work) -> decltype(work()) {
  try {
    return std::forward<Work>(work)();
  } catch (const platform::Exception&) {
    throw;
  } catch (const std::exception& exception) {
    throw platform::Exception("QVPlaylistFactoryException", exception.what());
  } catch (...) {
    throw platform::Exception("QVPlaylistFactoryException", "Unexpected C++ exception received");
  }
}
