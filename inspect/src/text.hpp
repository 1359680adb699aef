// Text that came from a gateway, made safe for a terminal, JSON and HTML.
#pragma once

#include <string>
#include <string_view>

namespace zqinspect {

// The text with every byte that is not part of valid UTF-8, and every
// control character other than tab, written as \xNN (a backslash itself as
// \\), so that nothing a gateway wrote can drive a terminal.
// With `keep_newlines`, a newline stays a newline (for multi-line text
// shown in a block of its own).
std::string escaped(std::string_view text, bool keep_newlines = false);

// True when the text is valid UTF-8 without control characters other than
// tab and newline.
bool is_clean_text(std::string_view text);

// The text for an HTML element or attribute: escaped() first, then the five
// characters HTML gives meaning to.
std::string html(std::string_view text, bool keep_newlines = false);

// Whitespace removed from both ends.
std::string_view trimmed(std::string_view text);

} // namespace zqinspect
