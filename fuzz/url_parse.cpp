// The upload URL parser (parse_upload_url, the body of wput_url_parse) on
// arbitrary 64-byte URL fields, terminated or not, with a stand-in resolver
// (a fuzzer must never reach the network). Checks: every text field of the
// block stays terminated inside its array; on success the fields hold only
// what the word classes allow (so nothing a shell acts on), user and password
// are at most 19 characters, the path starts with '/', the port is a
// positive int (never a word with '-' in a command), and the URL ends in '/'
// when it has room for it. The management tool's URL check
// (upload_url_problem) agrees with the parser.
//
// Input: [resolver answer][url bytes...]
//   resolver answer: bit 0 set: a name resolves to 203.0.113.21, else fails.
#include <cstdint>
#include <cstring>
#include <string_view>

#include "engine/util.h"
#include "fuzz/fuzz_input.h"
#include "upload/upload.h"

using namespace zq;

namespace {

bool resolves;

int stand_in_resolver(std::string_view name, char (&out)[sizeof(upload_params::host)]) {
    if (!resolves) return -1;
    if (name.find_first_not_of("0123456789.") == std::string_view::npos) {
        zq::copy(out, name);
        return 0;
    }
    zq::copy(out, "203.0.113.21");
    return 0;
}

template <size_t N> bool field_terminated(const char (&field)[N]) {
    return memchr(field, '\0', N) != nullptr;
}

bool only(std::string_view text, std::string_view extra) {
    return text.empty() || zq::is_word_of(text, extra);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    resolves = (in.byte() & 1) != 0;
    const std::string url = in.bytes(sizeof(upload_params::url));
    upload_params p{};
    memcpy(p.url, url.data(), url.size());
    const bool was_terminated = url.size() < sizeof(p.url) || memchr(url.data(), '\0', url.size());
    // The management tool's judgement of the same text, before the parser
    // appends its '/'.
    const std::string text(p.url, strnlen(p.url, sizeof(p.url)));
    const char *problem = zq::upload_url_problem(text);
    const int rc = parse_upload_url(&p, stand_in_resolver);
    if (!was_terminated) FUZZ_CHECK(rc == -1);
    // What the tool accepts, the library takes (when the name resolves);
    // what the library takes from a URL that begins with its scheme, the
    // tool accepts, but for the three things it is stricter about: a port
    // that is not a plain number from 1 to 65535, a 63-character URL with no
    // room for the '/', and a server path the parser would cut to 19
    // characters.
    if (was_terminated && !problem && resolves) FUZZ_CHECK(rc == 0);
    if (rc == 0 && (text.starts_with("ftp://") || text.starts_with("tftp://")) && problem) {
        const std::string_view why(problem);
        FUZZ_CHECK(why.starts_with("the port") || why.starts_with("the URL has no room") ||
                   why.starts_with("the server path"));
    }
    if (rc != 0) return 0;
    FUZZ_CHECK(field_terminated(p.url) && field_terminated(p.host) && field_terminated(p.user) &&
               field_terminated(p.password) && field_terminated(p.path));
    FUZZ_CHECK(only(zq::view(p.url), "_.-/:@"));
    FUZZ_CHECK(only(zq::view(p.user), "_.-") && only(zq::view(p.password), "_.-"));
    FUZZ_CHECK(only(zq::view(p.host), "_.-:") && p.host[0] != '\0');
    FUZZ_CHECK(p.path[0] == '/');
    FUZZ_CHECK(p.port >= 1 && p.port <= static_cast<uint32_t>(INT32_MAX));
    const size_t length = strlen(p.url);
    FUZZ_CHECK(length > 62 || p.url[length - 1] == '/');
    return 0;
}
