// What tcpdump printed of a real exchange, made comparable with its fixture (fixtures/SCENARIO.txt).
#pragma once

// GCC 12 warns, falsely, of an uninitialised std::function inside <regex> once optimised and sanitized.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wmaybe-uninitialized"
#include <cstdlib>
#include <fstream>
#include <regex>
#include <sstream>
#include <string>

namespace exchange {

// Transaction ids, IP ids and the veth's random MAC address become "N"; the seconds a DHCP client has been
// trying go (tcpdump leaves them out while 0, and a loaded machine can take a second between two packets).
inline std::string normalized(std::string text) {
    const std::pair<const char *, const char *> changes[] = {{"[0-9a-f]{2}(:[0-9a-f]{2}){5}", "N"},
                                                             {"xid 0x[0-9a-f]+", "xid 0xN"},
                                                             {", id [0-9]+, offset", ", id N, offset"},
                                                             {", secs [0-9]+", ""}};
    for (const auto &[pattern, shown] : changes) text = std::regex_replace(text, std::regex(pattern), shown);
    return text;
}

// How often a client repeats a request depends on the machine's load: a packet (a line and the blank-led
// lines under it) equal to the one before but for the PPP identifier goes.
inline std::string without_retries(const std::string &text) {
    const std::regex packet("[^\\n]*\\n?([ \\t][^\\n]*\\n?)*"), retry_id("\\), id [0-9]+");
    std::string out, last;
    for (std::sregex_iterator it(text.begin(), text.end(), packet), end; it != end; ++it) {
        const std::string key =
            std::regex_replace(it->str(), retry_id, "), id N", std::regex_constants::format_first_only);
        if (key != last) out += it->str();
        last = key;
    }
    return out;
}

// The fixture's text; with ZQ_UPDATE_FIXTURES set in the environment it is first rewritten with `actual`.
inline std::string fixture(const std::string &name, const char *actual = nullptr) {
    const std::string path = std::string(ZQ_NETWORK_DIR) + "/fixtures/" + name;
    if (actual && getenv("ZQ_UPDATE_FIXTURES")) std::ofstream(path) << actual;
    std::stringstream text;
    text << std::ifstream(path).rdbuf();
    return text.str();
}

} // namespace exchange

#pragma GCC diagnostic pop
