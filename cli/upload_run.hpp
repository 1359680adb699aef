// Uploads through a control block's upload action, as a management process
// asks for them: start the worker, follow the block's state, and tell what
// the server stored or why nothing was stored.
#pragma once

#include <cstdint>
#include <string>

#include "commands.hpp"
#include "zq_diag.h"

namespace zqcli {

struct UploadRequest {
    std::string url;
    uint32_t protocol = UPLOAD_PROTOCOL_FTP;
    unsigned wan = 0; // 1-based WAN connection; 0 lets the default route carry it
    unsigned timeout_s = 120;
};

// Which upload: the diagnosis package through diagnose_set, or the capture
// archive through capture_set.
struct UploadTarget {
    const char *what;     // "the diagnosis package"
    diag_exec_ctl *block; // g_diag_exec or g_cap_exec
    uint32_t action;      // the block's upload action
    int (*start)();       // diagnose_set or capture_set
};

// The options of an upload, shared by 'zqdiag upload' and 'zqdiag capture
// upload'.
inline constexpr OptionDef URL_OPTION = {
    "url", 0, "URL", "the server: ftp://[USER:PASSWORD@]HOST[:PORT]/PATH or tftp://HOST[:PORT]"};
inline constexpr OptionDef PROTOCOL_OPTION = {"protocol", 0, "ftp|tftp",
                                              "transfer protocol (default: the URL's scheme)"};
inline constexpr OptionDef WAN_OPTION = {
    "wan", 0, "N", "send through WAN connection N, 1 to 8 (default: the default route)"};
inline constexpr OptionDef UPLOAD_TIMEOUT_OPTION = {
    "timeout", 0, "SECONDS", "give up waiting after this long (default 120; 1 to 86400)"};

// --url, --protocol, --wan and --timeout into `request`; false (with
// `status` 2, the usage error shown) on bad input.
bool read_upload_options(const Command &self, const ParsedArgs &args, UploadRequest &request, int &status);

// The bold title line: what goes where, how.
void print_upload_title(const char *what, const UploadRequest &request);

// Runs the upload and returns the tool's exit status.
int run_upload(const UploadTarget &target, const UploadRequest &request);

// The URL with its password replaced by "****", for display.
std::string hide_password(const std::string &url);

} // namespace zqcli
