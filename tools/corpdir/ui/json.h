// JSON output.
#ifndef CORPDIR_TOOL_JSON_H
#define CORPDIR_TOOL_JSON_H

#include <nlohmann/json.hpp>
#include <string>

namespace corpdir_tool
{

// Members keep the order in which they were added.
using Json = nlohmann::ordered_json;

// One line. Bytes that are not UTF-8, which a server may send, are replaced by U+FFFD.
inline std::string TextOf(const Json& value)
{
    return value.dump(-1, ' ', false, Json::error_handler_t::replace);
}

// The text, or null when it is empty.
inline Json OrNull(const std::string& text)
{
    return text.empty() ? Json(nullptr) : Json(text);
}

}  // namespace corpdir_tool

#endif
