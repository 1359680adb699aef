// Uploads through a control block's upload action, as a management process
// asks for them: start the worker, follow the block's state, and tell what
// the server stored or why nothing was stored.
#pragma once

#include <cstdint>
#include <string>

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

// Runs the upload and returns the tool's exit status.
int run_upload(const UploadTarget &target, const UploadRequest &request);

// The URL with its password replaced by "****", for display.
std::string hide_password(const std::string &url);

} // namespace zqcli
