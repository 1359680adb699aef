// The reading of decoded PPPoE captures: session blocks, the last configure
// request, the option reads into their 10-, 20-, 30- and 35-byte fields and
// the service names. Each reader gets the text in a buffer of exactly its
// working size (4096 bytes), so a read or write past it is caught; every
// field must come back terminated inside its size.
//
// Input: [capacity byte][text...]
//   capacity: the block buffer size given to read_session_block (1 to 256,
//             scaled; 0 stands for 4096).
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/fuzz_input.h"
#include "methods/network/pppoe_analysis.h"

using namespace zq;

namespace {

template <size_t N> void check_terminated(const char (&field)[N]) {
    FUZZ_CHECK(memchr(field, '\0', N) != nullptr);
}

// The text in a heap block of PPPOE_TEXT_SIZE bytes, cut to fit.
std::unique_ptr<char[]> block_of(const std::string &text) {
    std::unique_ptr<char[]> block(new char[PPPOE_TEXT_SIZE]);
    const size_t n = text.size() < PPPOE_TEXT_SIZE - 1 ? text.size() : PPPOE_TEXT_SIZE - 1;
    memcpy(block.get(), text.data(), n);
    block[n] = '\0';
    return block;
}

void options(const std::string &text) {
    auto block = block_of(text);
    lcp_options lcp{};
    parse_lcp_options(block.get(), lcp);
    check_terminated(lcp.mru);
    check_terminated(lcp.auth);

    block = block_of(text);
    ipcp_options ipcp{};
    parse_ipcp_options(block.get(), ipcp);
    check_terminated(ipcp.addr);
    check_terminated(ipcp.pri_dns);
    check_terminated(ipcp.sec_dns);

    for (const char *kind : {LCP_CONF_REQUEST, IPCP_CONF_REQUEST}) {
        block = block_of(text);
        const char *start = last_conf_request(block.get(), kind);
        FUZZ_CHECK(!start || (start >= block.get() && start < block.get() + PPPOE_TEXT_SIZE));
    }
}

void service_names(const std::string &text) {
    auto block = block_of(text);
    service_name name{};
    parse_service_name(block.get(), name);
    check_terminated(name);
    get_padi_service_name(block.get(), name);
    get_padr_service_name(block.get(), name);
    check_terminated(name);
    // Every line a name for the server list.
    server_list list{};
    for (char *line = strtok(block.get(), "\n"); line; line = strtok(nullptr, "\n")) {
        server_list_add(list, line);
        for (const service_name &slot : list) check_terminated(slot);
    }
}

void sessions(const std::string &text, uint32_t capacity) {
    FILE *file = fmemopen(const_cast<char *>(text.data()), text.size(), "r");
    if (!file) return;
    std::unique_ptr<char[]> block(new char[capacity]());
    while (read_session_block(file, block.get(), capacity)) {
        FUZZ_CHECK(memchr(block.get(), '\0', capacity) != nullptr);
        memset(block.get(), 0, capacity);
    }
    fclose(file);
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const uint8_t c = in.byte();
    const uint32_t capacity = c == 0 ? PPPOE_TEXT_SIZE : static_cast<uint32_t>(c);
    const std::string text = in.rest();
    if (text.empty()) return 0;
    options(text);
    service_names(text);
    sessions(text, capacity);
    return 0;
}
