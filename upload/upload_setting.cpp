// The upload workers of the two control blocks: each names its archive with
// the time, sends it through the chosen WAN and records the outcome in its
// block. Also the capture filter that keeps rotate mode's own uploads out of
// the capture.
#include <cstring>
#include <pthread.h>
#include <unistd.h>

#include "engine/engine.h"
#include "engine/exec_block.h"
#include "engine/log.h"
#include "engine/util.h"
#include "upload/upload.h"

namespace zq {

namespace {

constexpr unsigned WORKER_START_DELAY_US = 10000;
constexpr uint64_t UPLOAD_NAME_MAX = 16;
constexpr uint32_t RENAME_STAMP_FIRST = 1;

// What differs between the diagnosis upload and the capture upload.
struct upload_setting {
    diag_exec_ctl *block;
    const char *archive;
    const char *dir;
    const char *archive_name;
    const char *rename_failure;
    bool packs; // the diagnosis worker packs the evidence and clears it after the upload
};

constexpr upload_setting DIAGNOSIS_UPLOAD = {
    &g_diag_exec, ZQ_PACKAGE_PATH, ZQ_DIAG_DIR, ZQ_PACKAGE_NAME, "diagnose upload rename file error", true,
};

constexpr upload_setting CAPTURE_UPLOAD = {
    &g_cap_exec, ZQ_CAPTURE_TAR, ZQ_CAPTURE_DIR, ZQ_CAPTURE_TAR_NAME, "capture upload rename file error",
    false,
};

std::string_view base_name(std::string_view path) {
    const size_t slash = path.rfind('/');
    return slash == std::string_view::npos ? path : zq::slice(path, slash + 1);
}

// The control block's file_name, when it is a plain name that fits.
bool stored_name_ok(const char *caller, const diag_exec_ctl &block) {
    const std::string_view name = zq::view(block.file_name);
    if (name.size() == sizeof(block.file_name)) {
        ZQ_LOG_AS(caller, "refused file_name: unterminated text");
        return false;
    }
    return accept_upload_word(caller, upload_word::file_name, "file_name", name);
}

// Removes the archive that the previous upload stored, unless it is the one
// about to be sent: a second upload within the same minute renames the new
// archive onto the old name, and removing it then would lose the new one.
void remove_previous_upload(const char *caller, const upload_setting &s, std::string_view new_name) {
    const std::string_view previous = zq::view(s.block->file_name);
    if (previous.empty() || previous == s.archive_name || previous == new_name) return;
    if (!stored_name_ok(caller, *s.block)) return;
    char cmd[128] = {};
    if (format_cmd(caller, cmd, sizeof(cmd), "rm -f %s%.*s", s.dir, static_cast<int>(previous.size()),
                   previous.data()))
        zq_system(cmd);
}

void fill_upload_params(const char *caller, const upload_setting &s, upload_params *p) {
    diag_exec_ctl &block = *s.block;
    p->wan_index = static_cast<uint8_t>(get_wan_index(block.wan_mask));
    p->protocol = block.protocol;
    take_block_url(caller, block, *p);

    char path[sizeof(p->local_file)] = {};
    if (zq::file_exists(s.archive)) {
        char stamp[128] = {};
        zq_get_timestamps(stamp);
        if (zq_rename_file_name(s.archive, path, stamp, RENAME_STAMP_FIRST, UPLOAD_NAME_MAX) != 0)
            ZQ_LOG_AS(caller, "%s", s.rename_failure);
        remove_previous_upload(caller, s, base_name(zq::view(path)));
    } else {
        const std::string_view previous = zq::view(block.file_name);
        if (previous.empty()) {
            ZQ_LOG_AS(caller, "%s %s", s.archive_name, upload_log::NO_ARCHIVE);
            zq::set_state(block, EXEC_UPLOAD_FAIL);
            return;
        }
        if (!stored_name_ok(caller, block)) {
            zq::set_state(block, EXEC_UPLOAD_FAIL);
            return;
        }
        ZQ_FORMAT(path, "%s%.*s", s.dir, static_cast<int>(previous.size()), previous.data());
    }
    zq::copy(p->local_file, zq::view(path));
    zq::copy(p->remote_file, base_name(zq::view(path)));
}

void *run_upload_worker(const upload_setting &s, void (*setting)(upload_params *)) {
    pthread_detach(pthread_self());
    usleep(WORKER_START_DELAY_US);
    diag_exec_ctl &block = *s.block;
    upload_params params{};
    setting(&params);
    if (s.packs) zq_packet_diag_file();
    const int result = zq_file_upload(params);
    zq::set_state(block, result != 0 ? EXEC_UPLOAD_FAIL : EXEC_UPLOADED);
    if (s.packs) zq_clear_diag_file();
    zq::copy(block.file_name, zq::view(params.remote_file));
    zq::clear_worker(block);
    return &block;
}

} // namespace

bool take_block_url(const char *caller, const diag_exec_ctl &block, upload_params &p) {
    memset(p.url, 0, sizeof(p.url));
    if (!zq::terminated(block.url)) {
        ZQ_LOG_AS(caller, "refused url: unterminated text");
        return false;
    }
    zq::copy(p.url, block.url);
    return true;
}

void diagnose_upload_setting(upload_params *p) {
    if (p) fill_upload_params(__func__, DIAGNOSIS_UPLOAD, p);
}

void capture_upload_setting(upload_params *p) {
    if (p) fill_upload_params(__func__, CAPTURE_UPLOAD, p);
}

void *diagnose_upload(void *) { return run_upload_worker(DIAGNOSIS_UPLOAD, diagnose_upload_setting); }

void *capture_upload(void *) { return run_upload_worker(CAPTURE_UPLOAD, capture_upload_setting); }

int rotate_mode_init(tcpdump_req *req) {
    if (!req) return -1;
    // A capture on another WAN than the upload's does not see the uploads.
    if (g_cap_exec.kind != 0 && static_cast<int>(g_cap_exec.kind) != get_wan_index(g_cap_exec.wan_mask))
        return 0;
    upload_params scratch{};
    if (take_block_url(__func__, g_cap_exec, scratch) && wput_url_parse(&scratch) == 0 &&
        scratch.host[0] != '\0') {
        ZQ_FORMAT(req->filter, "'! host %s'", scratch.host);
        return 0;
    }
    ZQ_LOG_BREAK("rotate mode init error");
    return -1;
}

} // namespace zq
