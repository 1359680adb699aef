#include "json.hpp"

#include <cmath>
#include <cstdio>
#include <cstdlib>

namespace zqcli {

namespace {

bool continuation(unsigned char byte) { return (byte & 0xc0) == 0x80; }

// Length of the valid UTF-8 sequence at the start of `s`, 0 if there is none
// (overlong forms, surrogates and code points above U+10FFFF are invalid).
size_t utf8_sequence(std::string_view s) {
    const auto b0 = static_cast<unsigned char>(s[0]);
    size_t len;
    unsigned char lo = 0x80, hi = 0xbf; // allowed range of the second byte
    if (b0 >= 0xc2 && b0 <= 0xdf) {
        len = 2;
    } else if (b0 >= 0xe0 && b0 <= 0xef) {
        len = 3;
        if (b0 == 0xe0) lo = 0xa0;
        if (b0 == 0xed) hi = 0x9f;
    } else if (b0 >= 0xf0 && b0 <= 0xf4) {
        len = 4;
        if (b0 == 0xf0) lo = 0x90;
        if (b0 == 0xf4) hi = 0x8f;
    } else {
        return 0;
    }
    if (s.size() < len) return 0;
    const auto b1 = static_cast<unsigned char>(s[1]);
    if (b1 < lo || b1 > hi) return 0;
    for (size_t i = 2; i < len; ++i)
        if (!continuation(static_cast<unsigned char>(s[i]))) return 0;
    return len;
}

void append_escape(std::string &out, unsigned char byte) {
    switch (byte) {
    case '"':
        out += "\\\"";
        return;
    case '\\':
        out += "\\\\";
        return;
    case '\b':
        out += "\\b";
        return;
    case '\f':
        out += "\\f";
        return;
    case '\n':
        out += "\\n";
        return;
    case '\r':
        out += "\\r";
        return;
    case '\t':
        out += "\\t";
        return;
    default:
        break;
    }
    char code[8];
    snprintf(code, sizeof(code), "\\u%04x", byte);
    out += code;
}

} // namespace

std::string json_string(std::string_view bytes) {
    std::string out = "\"";
    while (!bytes.empty()) {
        const auto byte = static_cast<unsigned char>(bytes[0]);
        if (byte >= 0x80) {
            const size_t len = utf8_sequence(bytes);
            if (len) {
                out.append(bytes.substr(0, len));
                bytes.remove_prefix(len);
                continue;
            }
            append_escape(out, byte); // a stray byte: U+00XX
        } else if (byte < 0x20 || byte == '"' || byte == '\\' || byte == 0x7f) {
            append_escape(out, byte);
        } else {
            out.push_back(static_cast<char>(byte));
        }
        bytes.remove_prefix(1);
    }
    out += '"';
    return out;
}

std::string shortest_float(float value) {
    char buf[32];
    for (int digits = 1; digits <= 9; ++digits) {
        snprintf(buf, sizeof(buf), "%.*g", digits, static_cast<double>(value));
        if (strtof(buf, nullptr) == value) break;
    }
    return buf;
}

std::string json_float(float value) { return std::isfinite(value) ? shortest_float(value) : "null"; }

} // namespace zqcli
