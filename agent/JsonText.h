// Strict reading of JSON, and the one way in which JSON is written here.
#pragma once

#include <nlohmann/json.hpp>
#include <string>
#include <string_view>

// Compiled once, in JsonText.cpp, rather than in each source that builds a document.
extern template class nlohmann::basic_json<>;
extern template class nlohmann::basic_json<nlohmann::ordered_map>;

namespace Agent {

using Json = nlohmann::json;
// Keeps the keys in the order in which they were added.
using OrderedJson = nlohmann::ordered_json;

// The value of a whole text. Integers keep their 64 bits. Raises InputError for what is not JSON, a key given twice at
// any depth, an integer beyond 64 bits, a number beyond a double's range, nesting deeper than jsonDepthMax, malformed
// UTF-8 and a NUL character.
Json jsonFromText(std::string_view text);
constexpr std::size_t jsonDepthMax = 16;

// On one line, a blank behind each colon and comma.
std::string textOf(const OrderedJson& value);

}  // namespace Agent
