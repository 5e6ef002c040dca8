#pragma once

#include "halvix/QVError.h"

#include <string>
#include <vector>

/// A failed file as the host tells it: an HTTP status, or the error, with the queue's newest message as the
/// reason of one that only says that there is no file. `messages` newest first.
halvix::QVErrorRef fileFailure(const platform::ErrorRef& error, int httpStatusCode,
                               const std::vector<std::string>& messages);
