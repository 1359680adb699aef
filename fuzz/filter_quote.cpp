// A caller's capture filter through the quoting of tcpdump's command line.
// The command line the library builds is split by a small POSIX shell
// word splitter for what the builder can produce (single quotes, a
// backslash outside them, blanks, the closing '&'), and must hand tcpdump
// exactly its options and the filter's expression (the filter without
// quotes that wrap it whole) as one argument; outside quotes there may be
// nothing but the builder's own plain text and the escaped quotes of
// '\'' , and the one '&' at the end. A refused filter is one that holds a
// control character or whose expression begins with '-'; a line that
// does not fit is refused, never cut. The quoted word alone is checked in
// an output buffer of exactly the given size.
//
// Input: [flags][count][word buffer size][filter...]
//   flags bit 0: mode 1 (else 0); bit 1: interface "nas0_0" (else "any");
//   bit 2: the filter wrapped in single quotes.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>
#include <vector>

#include "capture/capture.h"
#include "fuzz/fuzz_input.h"

using namespace zq;

namespace {

constexpr const char *PCAP = "/tmp/capture_file/capture.pcap";

// Unquoted text the builder writes itself: options, numbers, the
// interface and the capture path.
bool is_plain(char c) {
    return (c >= 'a' && c <= 'z') || (c >= 'A' && c <= 'Z') || (c >= '0' && c <= '9') || c == '-' ||
           c == '.' || c == '/' || c == '_';
}

struct split_line {
    std::vector<std::string> words;
    bool background = false; // ended by an unquoted '&'
    bool clean = true;       // nothing the shell would act on besides
};

split_line sh_split(std::string_view line) {
    split_line out;
    std::string word;
    bool in_word = false;
    auto end_word = [&] {
        if (in_word) out.words.push_back(word);
        word.clear();
        in_word = false;
    };
    for (size_t i = 0; i < line.size(); ++i) {
        const char c = line[i];
        if (out.background) { // anything after the '&' is a second command
            out.clean = false;
            break;
        }
        if (c == '\'') {
            const size_t close = line.find('\'', i + 1);
            if (close == std::string_view::npos) {
                out.clean = false; // the shell would wait for more
                break;
            }
            word.append(line.substr(i + 1, close - i - 1));
            in_word = true;
            i = close;
        } else if (c == '\\') {
            // Only the escaped quote of '\'' is the builder's.
            if (i + 1 >= line.size() || line[i + 1] != '\'') out.clean = false;
            if (i + 1 < line.size()) word += line[++i];
            in_word = true;
        } else if (c == ' ') {
            end_word();
        } else if (c == '&' && i + 1 == line.size()) {
            end_word();
            out.background = true;
        } else {
            // ; | & $ ` < > ( ) newline, tabs, globs, '#', '~', '"', ...
            if (!is_plain(c)) out.clean = false;
            word += c;
            in_word = true;
        }
    }
    end_word();
    return out;
}

std::string_view model_unwrap(std::string_view text) {
    if (text.size() >= 2 && text.front() == '\'' && text.back() == '\'' &&
        text.substr(1, text.size() - 2).find('\'') == std::string_view::npos)
        return text.substr(1, text.size() - 2);
    return text;
}

bool model_refused(std::string_view expression) {
    for (char c : expression)
        if ((static_cast<unsigned char>(c) < 0x20 && c != '\t') || static_cast<unsigned char>(c) == 0x7f)
            return true;
    const size_t first = expression.find_first_not_of(" \t");
    return first != std::string_view::npos && expression[first] == '-';
}

// The length of the quoted word: two quotes around, four characters for
// each quote inside; nothing for an empty expression.
size_t model_word_length(std::string_view expression) {
    if (expression.empty()) return 0;
    size_t n = 2;
    for (char c : expression) n += c == '\'' ? 4 : 1;
    return n;
}

std::vector<std::string> expected_argv(uint32_t mode, const std::string &interface, uint64_t count,
                                       std::string_view expression) {
    std::vector<std::string> argv = {"tcpdump", "-v", "-i", interface};
    if (mode == 0) {
        if (!expression.empty()) argv.emplace_back(expression);
        argv.insert(argv.end(), {"-c", std::to_string(count), "-w", PCAP});
    } else {
        argv.insert(argv.end(), {"-C", std::to_string(count), "-W", "2", "-w", PCAP});
        if (!expression.empty()) argv.emplace_back(expression);
    }
    return argv;
}

size_t line_length_without_word(uint32_t mode, const std::string &interface, uint64_t count) {
    // mode 0: "tcpdump -v -i I W -c N -w P &"; mode 1: "... -w P W&".
    const size_t common = strlen("tcpdump -v -i ") + interface.size() + std::to_string(count).size() +
                          strlen(" -w ") + strlen(PCAP);
    return mode == 0 ? common + strlen(" ") + strlen(" -c ") + strlen(" &")
                     : common + strlen(" -C ") + strlen(" -W 2") + strlen(" ") + strlen("&");
}

void check_word(std::string_view filter, size_t size) {
    // A buffer of exactly `size` bytes: any write past it is caught.
    std::unique_ptr<char[]> out(size ? new char[size] : nullptr);
    if (size) memset(out.get(), 'x', size);
    const bool ok = quote_capture_filter(filter, out.get(), size);
    const std::string_view expression = model_unwrap(filter);
    if (size == 0) {
        FUZZ_CHECK(!ok);
        return;
    }
    FUZZ_CHECK(memchr(out.get(), '\0', size) != nullptr);
    const std::string_view word(out.get(), strlen(out.get()));
    if (model_refused(expression) || model_word_length(expression) >= size) {
        FUZZ_CHECK(!ok && word.empty());
        return;
    }
    FUZZ_CHECK(ok && word.size() == model_word_length(expression));
    const split_line split = sh_split(word);
    FUZZ_CHECK(split.clean && !split.background);
    if (expression.empty())
        FUZZ_CHECK(split.words.empty());
    else
        FUZZ_CHECK(split.words.size() == 1 && split.words[0] == expression);
}

} // namespace

extern "C" int LLVMFuzzerInitialize(int *, char ***) {
    // The refusals' log lines are not what is checked here.
    if (!freopen("/dev/null", "w", stdout)) return 0;
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const uint8_t flags = in.byte();
    const uint8_t count_byte = in.byte();
    const uint8_t word_size = in.byte();
    std::string text = in.rest();
    if (flags & 4) text = "'" + text + "'";

    tcpdump_req req{};
    req.mode = flags & 1;
    req.catch_count = req.mode == 0 ? count_byte * 20u + 1 : count_byte % 3 + 1;
    const std::string interface = flags & 2 ? "nas0_0" : "any";
    memcpy(req.interface, interface.c_str(), interface.size());
    // All of the text that fits the field, NULs included; one that fills
    // the field leaves it without a terminator.
    memcpy(req.filter, text.data(), text.size() < sizeof(req.filter) ? text.size() : sizeof(req.filter));
    const std::string_view filter(req.filter, strnlen(req.filter, sizeof(req.filter)));
    const std::string_view expression = model_unwrap(filter);

    char cmd[ZQ_TCPDUMP_COMMAND_SIZE];
    memset(cmd, 'x', sizeof(cmd));
    const bool ok = build_tcpdump_command(req, cmd);
    FUZZ_CHECK(memchr(cmd, '\0', sizeof(cmd)) != nullptr);
    const bool fits =
        line_length_without_word(req.mode, interface, req.catch_count) + model_word_length(expression) <
        sizeof(cmd);
    FUZZ_CHECK(ok == (!model_refused(expression) && fits));
    if (!ok) {
        FUZZ_CHECK(cmd[0] == '\0');
    } else {
        const split_line split = sh_split(cmd);
        FUZZ_CHECK(split.clean);
        FUZZ_CHECK(split.background);
        FUZZ_CHECK(split.words == expected_argv(req.mode, interface, req.catch_count, expression));
    }
    check_word(filter, word_size);
    return 0;
}
