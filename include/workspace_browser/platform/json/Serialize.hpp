#pragma once

#include <workspace_browser/Export.hpp>
#include <workspace_browser/platform/json/Value.hpp>

#include <string>

namespace foundation::json {

// Compact JSON text of a value (no white space). Object members come in key order.
// Numbers: a double or float holding an integer below 2^63 in magnitude prints as that exact
// integer (5, not 5.0); any other double or float prints the shortest text that reads back to
// the same number of its own width; long and unsigned long print exactly; NaN, infinities and
// Undefined print null. Strings escape '"', '\\' and control characters (\b \f \n \r \t, the
// rest as \u00XX); all other bytes, UTF-8 included, pass through unchanged.
// Thread-safe for concurrent calls on values nobody is changing.
WSB_EXPORT std::string serialize(const Value& value);
// Appends the text to `out`, so that a caller can reuse one buffer for many messages.
WSB_EXPORT void serialize(const Value& value, std::string& out);

} // namespace foundation::json
