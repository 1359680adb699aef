// Internal interface of the continuous capture upload of rotate mode (the
// chain of threads that sends every file tcpdump finishes). The exported
// start_tcpdump_continue_uploading is in zq_diag.h.
#pragma once

#include <cstddef>
#include <cstdint>

#include "zq_diag.h"

namespace zq {

constexpr size_t ZQ_FINISHED_NAME_SIZE = 128;

// Shared by the threads of the chain.
extern char finished_capture_file[ZQ_FINISHED_NAME_SIZE]; // the file the watcher found finished last
extern uint32_t capture_upload_count;                     // number of the next uploaded file
extern upload_params continue_upload_params;              // server fields parsed once, file fields per upload

// Starts `fn` as a detached thread: 0, or -1 (logged) when it cannot start.
int th_create(void *(*fn)(void *));
// Starts thread `id` of the chain: 0 start, 1 watcher, 2 uploader, 3 end.
// -1 for an unknown id or a thread that cannot start.
int start_upload_thread(uint32_t id);

void *continue_upload_begin(void *);
void *watch_capture_dir(void *);
void *tcpdump_file_upload(void *);
void *watch_finish(void *);

// Sends the 16-byte test file as "transport_test": 0 when it arrived.
int transport_test();
// Reads one batch of events from the inotify descriptor: 0 with
// finished_capture_file set, -1 when the batch has no closed ".pcap" file.
int check_if_file_finish_write(int fd);
// The batch reader's parsing half: the first event of `batch` (`size`
// bytes as read) that closes a written file whose name holds ".pcap" puts
// that name into `name`: 0, or -1 when there is none.
int find_finished_capture(const char *batch, size_t size, char (&name)[ZQ_FINISHED_NAME_SIZE]);
// Sends the capture file `name` of the capture directory as cap_N.pcap.
int upload_capture_file(const char *name);

} // namespace zq
