// The C event of an "event.fired" notification, decoded from its params or,
// on the hot road, straight from the frame's text.
#pragma once

#include <string_view>

#include "znpex/client/Responses.h"
#include "znpex/client/px_event.h"
#include "znpex/proto/Json.h"

namespace znpex::client {

// Throws ProtocolError for malformed params, std::bad_alloc when memory runs
// out (nothing left behind).
RspPtr<px_event_2_t> eventFromParams(const proto::Json& params);

// The event of a plain "event.fired" frame as the service writes it; null
// for any other text (eventFromParams then decides on the parsed message).
// Whatever it decodes, eventFromParams decodes the same.
RspPtr<px_event_2_t> eventFromText(std::string_view frame);

}  // namespace znpex::client
