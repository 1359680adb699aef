// The few pieces of JSON the tool writes.
#pragma once

#include <string>
#include <string_view>

namespace zqcli {

// A JSON string literal, quotes included, for arbitrary bytes. Valid UTF-8
// is kept; each byte that is not part of a valid UTF-8 sequence stands for
// the code point of the same value (U+0080..U+00FF, as in Latin-1), so every
// byte string gives valid JSON and the bytes can be told apart.
std::string json_string(std::string_view bytes);

// The shortest decimal that reads back as the same float; "null" for
// infinities and NaN, which JSON cannot express.
std::string json_float(float value);

// The same digits for the text view ("nan", "inf" as they are).
std::string shortest_float(float value);

} // namespace zqcli
