// The reading of a decoded PPPoE capture: session blocks, service names,
// the last configure request of a negotiation and the options it carried.
// Every reader works inside the fixed buffers named here.
#pragma once

#include <cstdint>
#include <cstdio>

namespace zq {

constexpr uint32_t PPPOE_TEXT_SIZE = 4096; // the whole decoded text, one session block
constexpr size_t PPPOE_SERVICE_NAME = 35;  // a service name and its terminator
constexpr size_t PPPOE_SERVER_SLOTS = 20;  // requested services analysed per capture

using service_name = char[PPPOE_SERVICE_NAME];
using server_list = service_name[PPPOE_SERVER_SLOTS];

// A caller's character array and its size; the text stays terminated and
// never reaches `capacity` characters.
struct text_buffer {
    char *text;
    uint32_t capacity;
};

struct lcp_options {
    char mru[10];
    char auth[30];
};
struct ipcp_options {
    char addr[20];
    char pri_dns[20];
    char sec_dns[20];
};

constexpr const char *LCP_CONF_REQUEST = "LCP, Conf-Request";
constexpr const char *IPCP_CONF_REQUEST = "IPCP, Conf-Request";

// Appends the file's text: 1 when it was read, 0 otherwise.
int zq_file_to_buffer(text_buffer *buffer, const char *path);
// The next session block of `file` (from a "PADI" line to the next "PADT"
// line) into `buffer`: 1 when one was read.
int read_session_block(FILE *file, char *buffer, uint32_t capacity);
// The Service-Name value after the first "PADR" / "PADI" in `text`: 1 when
// a non-empty one was found.
int get_padr_service_name(const char *text, service_name &out);
int get_padi_service_name(const char *text, service_name &out);
// The quoted value after the first Service-Name in `text`: the number of
// values read (0 or 1).
int parse_service_name(const char *text, service_name &out);
// 1 when `name` is new to the list (stored while there is room).
int server_list_add(server_list &list, const char *name);
// The last occurrence of `needle` after the first character, at most 50
// occurrences stepped through; null when none.
char *find_last(char *text, const char *needle);
// The text of the last configure request of `kind` (LCP_CONF_REQUEST or
// IPCP_CONF_REQUEST), cut before the next packet's line; null when none.
char *last_conf_request(char *text, const char *kind);
// The server's options of the last LCP / IPCP request received: 1 when all
// were found.
int parse_lcp_options(char *block, lcp_options &out);
int parse_ipcp_options(char *block, ipcp_options &out);

} // namespace zq
