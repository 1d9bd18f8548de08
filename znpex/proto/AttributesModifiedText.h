// "notify.attributesModified", the message a manager sends for every change
// of a watched attribute, written and read as text without a Json tree: the
// busiest message of a monitored domain. The text is the notification
// makeNotification(kNotifyAttributesModified, encodeAttributesModified(..))
// would print, up to the order of members and number spelling.
#pragma once

#include <optional>
#include <string>
#include <string_view>

#include "tarn_rmf2v/RMTypes.h"
#include "znpex/proto/NotifyMessages.h"

namespace znpex::proto {

// The whole notification. `handle` null: class attributes. Throws
// ProtocolError for a value type with no wire form.
std::string attributesModifiedNotification(const std::string& className,
                                           const zn_resource_handle* handle, bool persistent,
                                           const rm_attribute_value* values, unsigned int count);

// The same from decoded params.
std::string attributesModifiedNotification(const AttributesModified& n);

// The params of a plain such notification (members as the writer above puts
// them, values of the types ValueText reads directly). Nothing for any other
// text, which the general parser then takes or refuses; never throws
// ProtocolError.
std::optional<AttributesModified> scanAttributesModifiedNotification(std::string_view payload);

}  // namespace znpex::proto
