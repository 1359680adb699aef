// The command runner: runs a shell command through a pipe and keeps the
// newest part of its output that fits the caller's buffer.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/util.h"

char zq_cmd_result_buff[ZQ_CMD_RESULT_SIZE];
uint8_t do_not_generate_log;

namespace {

constexpr size_t LINE_BUFFER_SIZE = 64;
constexpr size_t CMD_COPY_SIZE = 256;
constexpr size_t PIPE_BUFFER_SIZE = 16384;

// Reads the next line (at most LINE_BUFFER_SIZE - 1 bytes) into `line`;
// false at the end of the output. Interrupted reads are resumed.
bool read_line(FILE *pipe, char (&line)[LINE_BUFFER_SIZE]) {
    for (;;) {
        if (fgets_unlocked(line, sizeof(line), pipe)) return true;
        if (!ferror_unlocked(pipe) || errno != EINTR) return false;
        clearerr_unlocked(pipe);
    }
}

// True when the cleared line buffer holds a byte after the terminator at
// `length`: what fgets read went on after a NUL.
bool holds_more(const char (&line)[LINE_BUFFER_SIZE], size_t length) {
    for (size_t i = length + 1; i < sizeof(line); ++i)
        if (line[i] != '\0') return true;
    return false;
}

} // namespace

int cmd_collect_output(FILE *stream, char *out, uint64_t size) {
    if (!stream || !out || size == 0) return -1;
    // The output buffer is used as a ring: when a line does not fit, writing
    // goes on from the start, so the buffer always holds the newest bytes.
    char *pos = out;
    uint64_t room = size;
    bool wrapped = false;
    char line[LINE_BUFFER_SIZE] = {};
    bool nul_seen = false;
    while (read_line(stream, line)) {
        size_t remaining = strlen(line);
        // The line buffer is cleared before every read, so a byte after the
        // first NUL means the output held a NUL: the text stops there, and
        // the rest of the line is dropped (once noted per command).
        if (!nul_seen && holds_more(line, remaining)) {
            nul_seen = true;
            ZQ_LOG_AS("zq_get_cmd_raw_data", "output holds a NUL byte: the rest of its line is dropped");
        }
        const char *src = line;
        while (remaining) {
            size_t n = remaining < room ? remaining : static_cast<size_t>(room);
            memcpy(pos, src, n);
            pos += n;
            src += n;
            remaining -= n;
            room -= n;
            if (remaining) {
                wrapped = true;
                pos = out;
                room = size;
            }
        }
        memset(line, 0, sizeof(line));
    }

    if (wrapped) {
        // Put the ring in order, oldest byte first.
        char *scratch = static_cast<char *>(malloc(size));
        if (!scratch) {
            ZQ_LOG("arrange data fail");
            out[size - 1] = '\0';
            return -1;
        }
        const uint64_t head = size - room;
        memcpy(scratch, pos, room);
        memcpy(scratch + room, out, head);
        memcpy(out, scratch, size);
        free(scratch);
        out[size - 1] = '\0';
    } else if (room == 0) {
        // Output exactly as long as the buffer: terminate it like a ring, so
        // the buffer never leaves the runner without a terminator once full.
        out[size - 1] = '\0';
    }
    return 0;
}

int zq_get_cmd_raw_data(zq_diag_args args) {
    const char *cmd = static_cast<const char *>(args.in_buf);
    char *out = static_cast<char *>(args.out_buf);

    FILE *pipe = popen(cmd, "r");
    if (!pipe) {
        ZQ_LOG("create pipe fail");
        return -1;
    }
    char iobuf[PIPE_BUFFER_SIZE];
    setvbuf(pipe, iobuf, _IOFBF, sizeof(iobuf));
    int rc = cmd_collect_output(pipe, out, args.out_size);
    pclose(pipe);
    if (rc != 0) return rc;
    write_cmd_log(cmd, out, args.out_size);
    return 0;
}

void write_cmd_log(const char *cmd, const char *output, uint64_t output_size) {
    if (do_not_generate_log || !cmd || !output) return;
    FILE *log = fopen(ZQ_CMD_LOG_PATH, "a");
    if (!log) return;
    fprintf(log, "cmd: [%s]\n", cmd);
    fwrite(output, 1, strnlen(output, output_size), log);
    fwrite("\n\n", 1, 2, log);
    fclose(log);
}

int zq_get_cmd_buff(const char *cmd, void *out, uint64_t out_size) {
    if (!cmd) return -1;
    zq_get_sys_diag("cmd", ACTION_RAW_DATA, zq_args(cmd, strlen(cmd) + 1, out, out_size));
    return 0;
}

char *zq_get_cmd_result(const char *cmd) {
    char copy[CMD_COPY_SIZE] = {};
    memset(zq_cmd_result_buff, 0, sizeof(zq_cmd_result_buff));
    if (!cmd) {
        ZQ_LOG("invalid input");
        return zq_cmd_result_buff;
    }
    zq::copy(copy, cmd);
    zq_get_sys_diag("cmd", ACTION_RAW_DATA,
                    zq_args(copy, sizeof(copy), zq_cmd_result_buff, sizeof(zq_cmd_result_buff)));
    return zq_cmd_result_buff;
}

int zq_system(const char *cmd) { return cmd ? system(cmd) : -1; }
