// Helpers the capture and injection tests share.
#pragma once

#include <gtest/gtest.h>

#include <cstring>
#include <functional>
#include <string>
#include <vector>

#include "capture/capture.h"

namespace capture_support {

// The text's bytes in a fixed field as a caller fills it: all that fit, NULs included, maybe no terminator.
template <size_t N> inline void fill(char (&field)[N], const std::string &text) {
    memset(field, 0, N);
    memcpy(field, text.data(), text.size() < N ? text.size() : N);
}

inline tcpdump_req request(uint32_t mode, uint64_t count, const std::string &interface,
                           const std::string &filter = "") {
    tcpdump_req req{};
    req.mode = mode;
    req.catch_count = count;
    fill(req.interface, interface);
    fill(req.filter, filter);
    return req;
}

// NUL-terminated words, as `printf '%s\0'` gives them.
inline std::vector<std::string> nul_split(const std::string &text) {
    std::vector<std::string> words;
    size_t at = 0;
    for (size_t end; (end = text.find('\0', at)) != std::string::npos; at = end + 1)
        words.push_back(text.substr(at, end - at));
    return words;
}

constexpr const char *PCAP = "/tmp/capture_file/capture.pcap";

// What tcpdump must receive for a request of `mode` (0 single, 1 rotate); an empty expression gives no filter
// argument at all.
inline std::vector<std::string> expected_argv(uint32_t mode, uint64_t count, const std::string &interface,
                                              const std::string &expression) {
    std::vector<std::string> argv = {"-v", "-i", interface};
    if (mode == 0 && !expression.empty()) argv.push_back(expression);
    if (mode == 0) argv.insert(argv.end(), {"-c", std::to_string(count), "-w", PCAP});
    if (mode == 1) argv.insert(argv.end(), {"-C", std::to_string(count), "-W", "2", "-w", PCAP});
    if (mode == 1 && !expression.empty()) argv.push_back(expression);
    return argv;
}

// The library's log lines (its standard output) while `fn` runs.
inline std::string log_of(const std::function<void()> &fn) {
    testing::internal::CaptureStdout();
    fn();
    return testing::internal::GetCapturedStdout();
}

} // namespace capture_support
