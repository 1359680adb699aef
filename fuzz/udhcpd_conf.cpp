// The LAN DHCP server's configuration file, read as the struct action reads
// it (fgets into a 64-byte buffer) and given to parse_udhcpd_conf_line one
// piece at a time. The block must equal a model built on the C library's
// own sscanf with the formats of the keyword table, each value cut at 15
// characters; nothing outside the block's text fields may change, and each
// line is handed over in a heap block of exactly its size.
//
// Input: the file's bytes.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>

#include "fuzz/fuzz_input.h"
#include "methods/methods.h"

using namespace zq;

namespace {

constexpr size_t LINE_BUFFER = 64;

struct field_model {
    const char *keyword;
    const char *format; // sscanf format of the row, value into a 1024-byte buffer
    char (zqSD_dhcp_diag::*field)[16];
};

constexpr field_model ROWS[] = {
    {"interface", "interface %1023s", &zqSD_dhcp_diag::interface},
    {"server", "server %1023s", &zqSD_dhcp_diag::ip_addr},
    {"start", "start %1023s", &zqSD_dhcp_diag::pool_addr_start},
    {"end", "end %1023s", &zqSD_dhcp_diag::pool_addr_end},
    {"subnet", "opt subnet %1023s", &zqSD_dhcp_diag::subnet},
    {"router", "opt router %1023s", &zqSD_dhcp_diag::gateway},
    {"dns", "opt dns %1023s", nullptr},
};

void cut_into(char (&dst)[16], const char *value) {
    memset(dst, 0, sizeof(dst));
    strncpy(dst, value, sizeof(dst) - 1);
}

void model_line(const char *line, zqSD_dhcp_diag &block) {
    for (const field_model &row : ROWS) {
        if (!strstr(line, row.keyword)) continue;
        char value[1024] = {};
        if (sscanf(line, row.format, value) != 1) return;
        if (row.field) {
            cut_into(block.*row.field, value);
        } else if (block.dns[0] == '\0') {
            cut_into(block.dns, value);
        } else if (block.secondary_dns[0] == '\0') {
            cut_into(block.secondary_dns, value);
        }
        return;
    }
}

// Text fields compared up to their terminators: the bytes behind them are
// not part of the value.
bool same_texts(const zqSD_dhcp_diag &a, const zqSD_dhcp_diag &b) {
    for (const field_model &row : ROWS) {
        const auto field = row.field ? row.field : &zqSD_dhcp_diag::dns;
        if (strncmp(a.*field, b.*field, 16) != 0) return false;
    }
    return strncmp(a.secondary_dns, b.secondary_dns, 16) == 0;
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const std::string file = in.rest();

    auto block = std::make_unique<zqSD_dhcp_diag>();
    memset(block.get(), 0x5a, sizeof(*block));
    for (char(zqSD_dhcp_diag::*field)[16] :
         {&zqSD_dhcp_diag::interface, &zqSD_dhcp_diag::ip_addr, &zqSD_dhcp_diag::pool_addr_start,
          &zqSD_dhcp_diag::pool_addr_end, &zqSD_dhcp_diag::subnet, &zqSD_dhcp_diag::gateway,
          &zqSD_dhcp_diag::dns, &zqSD_dhcp_diag::secondary_dns})
        memset((*block).*field, 0, 16);
    zqSD_dhcp_diag model = *block;
    const zqSD_dhcp_diag before = *block;

    // As fgets cuts the file: up to a newline or 63 bytes.
    size_t pos = 0;
    while (pos < file.size()) {
        size_t end = pos;
        while (end < file.size() && end - pos < LINE_BUFFER - 1)
            if (file[end++] == '\n') break;
        const std::string piece = file.substr(pos, end - pos);
        pos = end;
        const size_t text = strnlen(piece.data(), piece.size());
        std::unique_ptr<char[]> line(new char[text + 1]);
        memcpy(line.get(), piece.data(), text);
        line[text] = '\0';
        parse_udhcpd_conf_line(line.get(), *block);
        model_line(line.get(), model);
    }

    FUZZ_CHECK(same_texts(*block, model));
    for (char(zqSD_dhcp_diag::*field)[16] :
         {&zqSD_dhcp_diag::interface, &zqSD_dhcp_diag::ip_addr, &zqSD_dhcp_diag::pool_addr_start,
          &zqSD_dhcp_diag::pool_addr_end, &zqSD_dhcp_diag::subnet, &zqSD_dhcp_diag::gateway,
          &zqSD_dhcp_diag::dns, &zqSD_dhcp_diag::secondary_dns})
        FUZZ_CHECK(memchr((*block).*field, '\0', 16) != nullptr);
    FUZZ_CHECK(block->reserved == before.reserved && block->server_running == before.server_running);
    FUZZ_CHECK(memcmp(block->reserved_tail, before.reserved_tail, sizeof(before.reserved_tail)) == 0);
    FUZZ_CHECK(block->fault_flags == before.fault_flags &&
               block->lan_dhcp_disabled == before.lan_dhcp_disabled);
    // The pool check reads whatever the texts hold.
    dhcp_pool_check(*block);
    return 0;
}
