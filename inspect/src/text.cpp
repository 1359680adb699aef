#include "text.hpp"

#include <cstdio>

namespace zqinspect {

namespace {

// Length of the valid UTF-8 sequence at the start of `s`, or 0.
size_t utf8_length(std::string_view s) {
    const auto b = [&](size_t i) { return static_cast<unsigned char>(s[i]); };
    const unsigned char c = b(0);
    if (c < 0x80) return 1;
    size_t n = 0;
    unsigned min = 0;
    unsigned cp = 0;
    if ((c & 0xE0) == 0xC0)
        n = 2, min = 0x80, cp = c & 0x1F;
    else if ((c & 0xF0) == 0xE0)
        n = 3, min = 0x800, cp = c & 0x0F;
    else if ((c & 0xF8) == 0xF0)
        n = 4, min = 0x10000, cp = c & 0x07;
    else
        return 0;
    if (s.size() < n) return 0;
    for (size_t i = 1; i < n; ++i) {
        if ((b(i) & 0xC0) != 0x80) return 0;
        cp = (cp << 6) | (b(i) & 0x3F);
    }
    // Overlong forms, surrogates and values past Unicode are not text.
    if (cp < min || cp > 0x10FFFF || (cp >= 0xD800 && cp <= 0xDFFF)) return 0;
    // C1 controls are control characters too.
    if (cp >= 0x80 && cp < 0xA0) return 0;
    return n;
}

void hex_byte(std::string &out, unsigned char c) {
    char buf[8];
    snprintf(buf, sizeof(buf), "\\x%02x", c);
    out += buf;
}

} // namespace

std::string escaped(std::string_view text, bool keep_newlines) {
    std::string out;
    out.reserve(text.size());
    while (!text.empty()) {
        const unsigned char c = static_cast<unsigned char>(text[0]);
        if (c == '\\') {
            out += "\\\\";
            text.remove_prefix(1);
            continue;
        }
        if (c == '\t' || (c >= 0x20 && c < 0x7F) || (keep_newlines && c == '\n')) {
            out += static_cast<char>(c);
            text.remove_prefix(1);
            continue;
        }
        const size_t n = c >= 0x80 ? utf8_length(text) : 0;
        if (n == 0) {
            hex_byte(out, c);
            text.remove_prefix(1);
            continue;
        }
        out.append(text.substr(0, n));
        text.remove_prefix(n);
    }
    return out;
}

bool is_clean_text(std::string_view text) {
    while (!text.empty()) {
        const unsigned char c = static_cast<unsigned char>(text[0]);
        if (c == '\t' || c == '\n' || (c >= 0x20 && c < 0x7F)) {
            text.remove_prefix(1);
            continue;
        }
        const size_t n = c >= 0x80 ? utf8_length(text) : 0;
        if (n == 0) return false;
        text.remove_prefix(n);
    }
    return true;
}

std::string html(std::string_view text, bool keep_newlines) {
    const std::string safe = escaped(text, keep_newlines);
    std::string out;
    out.reserve(safe.size() + safe.size() / 8);
    for (const char c : safe) {
        switch (c) {
        case '&':
            out += "&amp;";
            break;
        case '<':
            out += "&lt;";
            break;
        case '>':
            out += "&gt;";
            break;
        case '"':
            out += "&quot;";
            break;
        case '\'':
            out += "&#39;";
            break;
        default:
            out += c;
        }
    }
    return out;
}

std::string_view trimmed(std::string_view text) {
    const auto blank = [](char c) { return c == ' ' || c == '\t' || c == '\r' || c == '\n'; };
    while (!text.empty() && blank(text.front())) text.remove_prefix(1);
    while (!text.empty() && blank(text.back())) text.remove_suffix(1);
    return text;
}

} // namespace zqinspect
