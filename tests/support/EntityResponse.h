#pragma once

#include "tests/support/FaultServer.h"

namespace support {

/// Answers one request for an entity, with Range, If-Range and HEAD as they should be, except for the fault.
void serveEntity(const Entity& entity, const Fault& fault, const ServerRequest& request,
                 ServerConnection& connection);

} // namespace support
