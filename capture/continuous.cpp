// Continuous capture upload: in rotate mode tcpdump writes two files in
// turn, and every file it closes is sent to the upload server at once as
// cap_0.pcap, cap_1.pcap, ... A chain of short detached threads does it: a
// start thread checks that the server can be reached, a watcher waits for
// finished files, an uploader sends them, and an end thread stops and
// cleans up.
#include <atomic>
#include <cerrno>
#include <cstdio>
#include <cstring>
#include <fcntl.h>
#include <poll.h>
#include <pthread.h>
#include <sched.h>
#include <sys/inotify.h>
#include <sys/prctl.h>
#include <unistd.h>

#include "capture/capture.h"
#include "capture/continuous.h"
#include "engine/engine.h"
#include "engine/exec_block.h"
#include "engine/log.h"
#include "engine/util.h"
#include "upload/upload.h"

// The exported functions below use the library's internals by name.
using namespace zq;

namespace zq {

char finished_capture_file[ZQ_FINISHED_NAME_SIZE];
uint32_t capture_upload_count;
upload_params continue_upload_params;

namespace {

constexpr const char *TRANSPORT_TEST_PATH = "/tmp/transport_test";
constexpr char TRANSPORT_TEST_TEXT[] = "Transport test!"; // written with its NUL: 16 bytes
static_assert(sizeof(TRANSPORT_TEST_TEXT) == 16);
constexpr size_t EVENT_BATCH_SIZE = 64;
constexpr size_t EVENT_HEADER_SIZE = 16;
constexpr unsigned FINISH_POLL_US = 100000;
constexpr unsigned FINISH_POLLS = 30; // transfers still running get 3 seconds
// The watcher looks at the process list at least this often: the event of
// tcpdump's last close may come while the process list still shows it
// (a process that has closed its files but not yet been reaped), and
// waiting for events alone would then wait for ever.
constexpr int WATCH_POLL_MS = 500;

struct upload_thread {
    uint32_t id;
    void *(*fn)(void *);
    const char *name; // the thread's name, ZQ_ROTATE_THREAD_PREFIX first
};

const upload_thread upload_thread_table[] = {
    {0, continue_upload_begin, "zq_rotate_begin"},
    {1, watch_capture_dir, "zq_rotate_watch"},
    {2, tcpdump_file_upload, "zq_rotate_send"},
    {3, watch_finish, "zq_rotate_end"},
};

// The uploads are serialised: one uploader at a time sends the finished
// files in the order the watcher found them. The shared parameter block
// holds one local and one remote name, and a transfer reads them while it
// runs (wput, btftp and the FTP script take them from it); were a second
// upload started beside it, it would rewrite them under the first. So the
// watcher only queues the name and starts an uploader when none is active;
// the active uploader drains the queue. The watcher alone advances
// `queue_head`, the uploader alone `queue_tail`; `uploader_active` passes
// the role on without a lock.
constexpr uint32_t QUEUE_SLOTS = 8;
char queued_files[QUEUE_SLOTS][ZQ_FINISHED_NAME_SIZE];
uint32_t queue_head;
uint32_t queue_tail;
bool uploader_active;

uint32_t load(const uint32_t &v) { return __atomic_load_n(&v, __ATOMIC_ACQUIRE); }
void store(uint32_t &v, uint32_t value) { __atomic_store_n(&v, value, __ATOMIC_RELEASE); }

bool claim_uploader() {
    bool idle = false;
    return __atomic_compare_exchange_n(&uploader_active, &idle, true, false, __ATOMIC_ACQ_REL,
                                       __ATOMIC_ACQUIRE);
}
void release_uploader() { __atomic_store_n(&uploader_active, false, __ATOMIC_RELEASE); }
bool uploader_running() { return __atomic_load_n(&uploader_active, __ATOMIC_ACQUIRE); }

// Queues the file the watcher found and makes sure an uploader runs.
void queue_finished_file() {
    const uint32_t head = load(queue_head);
    if (head - load(queue_tail) >= QUEUE_SLOTS) {
        ZQ_LOG("upload queue is full, %s is not sent", finished_capture_file);
        return;
    }
    zq::copy(queued_files[head % QUEUE_SLOTS], finished_capture_file);
    store(queue_head, head + 1);
    if (claim_uploader() && start_upload_thread(2) != 0) release_uploader();
}

bool tcpdump_running() { return zq_get_pid("tcpdump") != 0; }

// True when an event can be read from the inotify descriptor within
// WATCH_POLL_MS.
bool event_waiting(int fd) {
    pollfd p{fd, POLLIN, 0};
    return poll(&p, 1, WATCH_POLL_MS) > 0 && (p.revents & POLLIN) != 0;
}

} // namespace

namespace {

// A chain thread names itself before anything else, while the thread that
// starts it waits: a look at the process's threads (ps -T, or a caller
// waiting for the chain to end) finds one of the chain's names from the
// first start until the last thread has ended.
struct thread_start {
    void *(*fn)(void *);
    const char *name;
    std::atomic<bool> named{false};
};

void *named_thread(void *arg) {
    auto *start = static_cast<thread_start *>(arg);
    void *(*const fn)(void *) = start->fn;
    if (start->name) prctl(PR_SET_NAME, start->name);
    start->named.store(true, std::memory_order_release); // `start` may be gone from here on
    return fn(nullptr);
}

} // namespace

int th_create(void *(*fn)(void *)) {
    thread_start start{fn, nullptr};
    for (const upload_thread &entry : upload_thread_table)
        if (entry.fn == fn) start.name = entry.name;
    pthread_attr_t attr;
    pthread_attr_init(&attr);
    pthread_attr_setdetachstate(&attr, PTHREAD_CREATE_DETACHED);
    pthread_t thread{};
    const int rc = pthread_create(&thread, &attr, named_thread, &start);
    pthread_attr_destroy(&attr);
    if (rc != 0) {
        ZQ_LOG_BREAK("!create pthread fail");
        return -1;
    }
    while (!start.named.load(std::memory_order_acquire)) sched_yield();
    return 0;
}

int start_upload_thread(uint32_t id) {
    for (const upload_thread &entry : upload_thread_table)
        if (entry.id == id) return th_create(entry.fn);
    return -1;
}

} // namespace zq

void start_tcpdump_continue_uploading() { start_upload_thread(0); }

namespace zq {

int start_rotate_capture(tcpdump_req req) {
    req.catch_count = get_max_size_of_tcpdump_file();
    if (rotate_mode_init(&req) != 0) return -1;
    if (zq_get_tcpdump_file(req) != 0) return -1;
    note_user_capture();
    start_tcpdump_continue_uploading();
    return 0;
}

int transport_test() {
    const int fd = open(TRANSPORT_TEST_PATH, O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, 0644);
    if (fd < 0) {
        ZQ_LOG("Create test file fail");
        return -1;
    }
    const bool written = write(fd, TRANSPORT_TEST_TEXT, sizeof(TRANSPORT_TEST_TEXT)) ==
                         static_cast<ssize_t>(sizeof(TRANSPORT_TEST_TEXT));
    close(fd);
    if (!written) {
        ZQ_LOG("Create test file fail");
        return -1;
    }
    upload_params &p = continue_upload_params;
    p.wan_index = static_cast<uint8_t>(get_wan_index(g_cap_exec.wan_mask));
    p.protocol = g_cap_exec.protocol;
    zq::copy(p.local_file, TRANSPORT_TEST_PATH);
    zq::copy(p.remote_file, "transport_test");
    if (!take_block_url(__func__, g_cap_exec, p) || wput_url_parse(&p) != 0) {
        ZQ_LOG("url parse error");
        return -1;
    }
    if (add_upload_route(&p) != 0) return -1;
    return upload_action(&p);
}

void *continue_upload_begin(void *) {
    memset(finished_capture_file, 0, sizeof(finished_capture_file));
    memset(&continue_upload_params, 0, sizeof(continue_upload_params));
    store(capture_upload_count, 0);
    start_upload_thread(transport_test() == 0 ? 1 : 3);
    return nullptr;
}

int find_finished_capture(const char *batch, size_t size, char (&name)[ZQ_FINISHED_NAME_SIZE]) {
    size_t offset = 0;
    while (batch && size - offset >= EVENT_HEADER_SIZE) {
        // The header: watch descriptor, mask, cookie, name length.
        uint32_t header[4] = {};
        memcpy(header, batch + offset, sizeof(header));
        const uint32_t mask = header[1];
        const uint32_t length = header[3];
        offset += EVENT_HEADER_SIZE;
        if (length > size - offset) break; // a cut event: nothing after it can be read
        const std::string_view event_name(batch + offset, strnlen(batch + offset, length));
        offset += length;
        if ((mask & IN_CLOSE_WRITE) && length != 0 && zq::contains(event_name, ".pcap")) {
            zq::copy(name, event_name);
            return 0;
        }
    }
    return -1;
}

int check_if_file_finish_write(int fd) {
    alignas(inotify_event) char batch[EVENT_BATCH_SIZE] = {};
    ssize_t n = 0;
    do {
        n = read(fd, batch, sizeof(batch));
    } while (n < 0 && errno == EINTR);
    if (n <= 0) {
        ZQ_LOG_BREAK("read fail or empty result");
        return -1;
    }
    return find_finished_capture(batch, static_cast<size_t>(n), finished_capture_file);
}

void *watch_capture_dir(void *) {
    const int fd = inotify_init1(IN_CLOEXEC);
    if (fd < 0) return nullptr;
    const int watch = inotify_add_watch(fd, ZQ_CAPTURE_DIR, IN_CLOSE_WRITE);
    if (watch < 0) {
        close(fd);
        return nullptr;
    }
    while (tcpdump_running()) {
        if (!event_waiting(fd)) continue;
        if (check_if_file_finish_write(fd) != 0) break;
        queue_finished_file();
    }
    inotify_rm_watch(fd, watch);
    close(fd);
    start_upload_thread(3);
    return nullptr;
}

int upload_capture_file(const char *name) {
    upload_params &p = continue_upload_params;
    char local[sizeof(p.local_file)] = {};
    char remote[sizeof(p.remote_file)] = {};
    if (!ZQ_FORMAT_CMD(local, "/tmp/capture_file/%s", name) ||
        !ZQ_FORMAT_CMD(remote, "cap_%u.pcap", load(capture_upload_count)))
        return -1;
    zq::copy(p.local_file, zq::view(local));
    zq::copy(p.remote_file, zq::view(remote));
    add_upload_route(&p);
    return upload_action(&p);
}

void *tcpdump_file_upload(void *) {
    for (;;) {
        while (load(queue_tail) != load(queue_head)) {
            const uint32_t tail = load(queue_tail);
            const uint32_t number = load(capture_upload_count);
            if (upload_capture_file(queued_files[tail % QUEUE_SLOTS]) != 0)
                ZQ_LOG("upload [capture %u] fail\n", number);
            store(capture_upload_count, number + 1);
            store(queue_tail, tail + 1);
        }
        release_uploader();
        // A file queued after the last look and before the release would
        // find no uploader: take the role back for it, unless the watcher
        // has started a new uploader meanwhile.
        if (load(queue_tail) == load(queue_head) || !claim_uploader()) return nullptr;
    }
}

void *watch_finish(void *) {
    // Only this capture's own tcpdump is stopped here, and the permit given
    // back only while this process still holds it. A tcpdump that is gone
    // was stopped by the user's stop request (which gave the permit back
    // and packs the remaining files while the block still reads
    // "capturing") or died by itself (its permit then stays taken, as for
    // a dead single capture); a tcpdump running now is then another
    // capture's, and the permit may be another's too.
    const bool stopped_here = user_capture_alive();
    if (stopped_here) {
        stop_tcpdump_catch();
        forget_user_capture();
        zq::release_own_permit(__func__);
    }
    // The files are removed only after the stop's packing, and after the
    // transfers still running, for 3 seconds at most.
    const auto busy = [stopped_here] {
        return uploader_running() || zq_get_pid("ftp") != 0 ||
               (!stopped_here && zq::get_state(g_cap_exec) == EXEC_RUNNING);
    };
    for (unsigned i = 0; i < FINISH_POLLS && busy(); ++i) usleep(FINISH_POLL_US);
    zq_system("rm /tmp/capture_file/*");
    // Only a block still capturing is written: a stop request has left it
    // idle, and the caller may be reading it.
    zq::exchange_state(g_cap_exec, EXEC_RUNNING, EXEC_IDLE);
    ZQ_LOG_BREAK("tcpdump rotate mode done");
    del_upload_route(&continue_upload_params);
    return nullptr;
}

} // namespace zq
