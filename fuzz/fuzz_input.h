// A small reader over a fuzz input: fixed-size fields first, the rest as
// text. Reading past the end yields zeros and empty texts.
#pragma once

#include <cstddef>
#include <cstdint>
#include <cstdio>
#include <cstdlib>
#include <string>
#include <sys/mman.h>
#include <unistd.h>

class fuzz_input {
  public:
    fuzz_input(const uint8_t *data, size_t size) : data_(data), size_(size) {}

    uint8_t byte() { return pos_ < size_ ? data_[pos_++] : 0; }
    uint16_t u16() { return static_cast<uint16_t>(byte() << 8 | byte()); }
    std::string bytes(size_t n) {
        if (n > size_ - pos_) n = size_ - pos_;
        std::string s(reinterpret_cast<const char *>(data_ + pos_), n);
        pos_ += n;
        return s;
    }
    std::string rest() { return bytes(size_ - pos_); }
    bool empty() const { return pos_ >= size_; }

  private:
    const uint8_t *data_;
    size_t size_;
    size_t pos_ = 0;
};

// A descriptor that reads `bytes` from the start and then reports the end,
// as a command's pipe does once the command has ended; -1 on failure.
inline int fuzz_output_fd(const std::string &bytes) {
    const int fd = memfd_create("fuzz_output", MFD_CLOEXEC);
    if (fd < 0) return -1;
    if (write(fd, bytes.data(), bytes.size()) != static_cast<ssize_t>(bytes.size()) ||
        lseek(fd, 0, SEEK_SET) != 0) {
        close(fd);
        return -1;
    }
    return fd;
}

// A broken invariant: say which, then abort so libFuzzer keeps the input.
#define FUZZ_CHECK(cond)                                                                                     \
    do {                                                                                                     \
        if (!(cond)) {                                                                                       \
            fprintf(stderr, "%s:%d: check failed: %s\n", __FILE__, __LINE__, #cond);                         \
            abort();                                                                                         \
        }                                                                                                    \
    } while (0)
