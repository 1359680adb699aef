// The command runner: runs a shell command through a pipe and keeps the
// newest part of its output that fits the caller's buffer.
#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/util.h"

// The exported functions below use the library's internals by name.
using namespace zq;

char zq_cmd_result_buff[ZQ_CMD_RESULT_SIZE];
uint8_t do_not_generate_log;

namespace zq {

namespace {

// One read of the runner's 64-byte line buffer takes at most 63 bytes of
// output: up to and including a newline, or 63 bytes when no newline comes
// first; of a read only the bytes before its first NUL are kept.
constexpr size_t LINE_BUFFER_SIZE = 64;
constexpr size_t LINE_LIMIT = LINE_BUFFER_SIZE - 1;
constexpr size_t CMD_COPY_SIZE = 256;
// The pipe is read in blocks of this size (on the stack) and the blocks are
// cut into those reads, so a long output costs a few system calls and block
// copies rather than a library call per line.
constexpr size_t BLOCK_SIZE = 16384;

// The caller's buffer used as a ring: kept byte number i of the output lands
// at out[i % size], so the buffer always holds the newest bytes.
struct output_ring {
    char *out;
    uint64_t size;
    uint64_t total = 0; // bytes kept so far

    void put(const char *src, size_t n) {
        if (n > size) { // only the newest `size` of them can survive
            src += n - size;
            total += n - size;
            n = static_cast<size_t>(size);
        }
        const uint64_t at = total % size;
        const size_t first = n < size - at ? n : static_cast<size_t>(size - at);
        memcpy(out + at, src, first);
        memcpy(out, src + first, n - first);
        total += n;
    }
};

// Cuts the blocks into the line buffer's reads; a read may span blocks.
struct line_cutter {
    size_t used = 0;       // bytes of the current read taken so far
    bool dropping = false; // the current read met a NUL: the rest is not kept
    bool nul_noted = false;

    void feed(const char *p, size_t n, output_ring &ring) {
        if (!dropping && !memchr(p, '\0', n)) {
            // Every byte is kept; all that matters of the reads is where the
            // last one stands: after the last newline, reads are 63 bytes.
            ring.put(p, n);
            const char *nl = static_cast<const char *>(memrchr(p, '\n', n));
            used = (nl ? static_cast<size_t>(p + n - nl - 1) : used + n) % LINE_LIMIT;
            return;
        }
        while (n) {
            size_t len = n < LINE_LIMIT - used ? n : LINE_LIMIT - used;
            const char *nl = static_cast<const char *>(memchr(p, '\n', len));
            if (nl) len = static_cast<size_t>(nl - p) + 1;
            if (!dropping) {
                const char *nul = static_cast<const char *>(memchr(p, '\0', len));
                ring.put(p, nul ? static_cast<size_t>(nul - p) : len);
                dropping = nul != nullptr;
                if (dropping && !nul_noted) { // once per command
                    nul_noted = true;
                    ZQ_LOG_AS("zq_get_cmd_raw_data",
                              "output holds a NUL byte: the rest of its line is dropped");
                }
            }
            p += len;
            n -= len;
            used += len;
            if (nl || used == LINE_LIMIT) {
                used = 0;
                dropping = false;
            }
        }
    }
};

} // namespace

int cmd_collect_output(int fd, char *out, uint64_t size) {
    if (fd < 0 || !out || size == 0) return -1;
    output_ring ring{out, size};
    line_cutter cutter;
    char block[BLOCK_SIZE];
    for (;;) {
        const ssize_t n = read(fd, block, sizeof(block));
        if (n > 0)
            cutter.feed(block, static_cast<size_t>(n), ring);
        else if (n == 0 || errno != EINTR)
            break; // the end of the output (or a broken pipe)
    }

    if (ring.total > size) {
        // The ring wrapped: put it in order, oldest byte first.
        char *scratch = static_cast<char *>(malloc(size));
        if (!scratch) {
            ZQ_LOG_AS("zq_get_cmd_raw_data", "arrange data fail");
            out[size - 1] = '\0';
            return -1;
        }
        const uint64_t oldest = ring.total % size;
        memcpy(scratch, out + oldest, size - oldest);
        memcpy(scratch + (size - oldest), out, oldest);
        memcpy(out, scratch, size);
        free(scratch);
        out[size - 1] = '\0';
    } else if (ring.total == size) {
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
    // The runner reads the pipe's descriptor in blocks of its own; the
    // stream is never read, so libc allocates no buffer for it.
    int rc = cmd_collect_output(fileno(pipe), out, args.out_size);
    pclose(pipe);
    if (rc != 0) return rc;
    write_cmd_log(cmd, out, args.out_size);
    return 0;
}

namespace {
// A command of at least two characters and its terminator, and room for a
// line of output.
constexpr zq::envoy_rules CMD_RULES = {{zq::NEED_IN | zq::NEED_OUT | zq::IN_MIN | zq::OUT_MIN, 3, 64},
                                       zq::ANY_BLOCK,
                                       zq::ANY_BLOCK,
                                       zq::ANY_BLOCK};
} // namespace

const zq::method_descriptor cmd_method = {
    .entry = {.name = "cmd", .raw_data = zq_get_cmd_raw_data, .envoy = zq::envoy<CMD_RULES>},
};

void write_cmd_log(const char *cmd, const char *output, uint64_t output_size) {
    if (do_not_generate_log || !cmd || !output) return;
    FILE *log = fopen(ZQ_CMD_LOG_PATH, "a");
    if (!log) return;
    fprintf(log, "cmd: [%s]\n", cmd);
    fwrite(output, 1, strnlen(output, output_size), log);
    fwrite("\n\n", 1, 2, log);
    fclose(log);
}

} // namespace zq

int zq_get_cmd_buff(const char *cmd, void *out, uint64_t out_size) {
    if (!cmd) return -1;
    zq_get_sys_diag(zq::CMD_METHOD, ACTION_RAW_DATA, zq_args(cmd, strlen(cmd) + 1, out, out_size));
    return 0;
}

char *zq_get_cmd_result(const char *cmd) {
    char copy[CMD_COPY_SIZE] = {};
    memset(zq_cmd_result_buff, 0, sizeof(zq_cmd_result_buff));
    if (!cmd) { // nothing to copy or run: refused with a log line, the buffer left cleared
        ZQ_LOG("invalid input");
        return zq_cmd_result_buff;
    }
    zq::copy(copy, cmd);
    zq_get_sys_diag(zq::CMD_METHOD, ACTION_RAW_DATA,
                    zq_args(copy, sizeof(copy), zq_cmd_result_buff, sizeof(zq_cmd_result_buff)));
    return zq_cmd_result_buff;
}

namespace zq {

int zq_system(const char *cmd) { return cmd ? system(cmd) : -1; }

void remove_if_present(const char *path, const char *rm) {
    if (!zq::file_exists(path)) return;
    char cmd[128] = {};
    const int n = ZQ_FORMAT(cmd, "%s %s", rm, path);
    if (n > 0 && static_cast<size_t>(n) < sizeof(cmd)) zq_system(cmd);
}

} // namespace zq
