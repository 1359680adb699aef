// The first line of /proc/stat: "%s %u %u %u %u %u %u %u". parse_cpu_stat_line
// must agree with the C library's sscanf reading the name as a whole word
// and the counters after it (a name longer than 19 characters is cut, never
// written past its field), leave unread counters as they were, and read only
// the bytes it is given. Any two samples then give a CPU load without a
// fault.
//
// Input: [split][line bytes...]: the line, and a second line cut from it at
// `split` for the second sample.
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <memory>
#include <string>
#include <string_view>

#include "fuzz/fuzz_input.h"
#include "methods/methods.h"

using namespace zq;

namespace {

constexpr uint32_t UNTOUCHED = 0xa5a5a5a5;

cpu_stat_sample fresh() {
    cpu_stat_sample s;
    memset(s.name, 0x7e, sizeof(s.name));
    s.name[sizeof(s.name) - 1] = '\0';
    s.user = s.nice = s.system = s.idle = s.iowait = s.irq = s.softirq = UNTOUCHED;
    return s;
}

cpu_stat_sample parsed(const std::string &line) {
    const size_t text = strnlen(line.data(), line.size()); // the line as fgets leaves it
    std::unique_ptr<char[]> bytes(new char[text ? text : 1]);
    memcpy(bytes.get(), line.data(), text);
    cpu_stat_sample s = fresh();
    parse_cpu_stat_line(std::string_view(bytes.get(), text), s);
    return s;
}

void check_against_scanf(const std::string &line, const cpu_stat_sample &s) {
    const std::string text(line.c_str()); // up to the first NUL
    const cpu_stat_sample untouched = fresh();
    // A name buffer as large as the line: the whole word fits.
    std::unique_ptr<char[]> name(new char[text.size() + 1]());
    int used = 0;
    if (sscanf(text.c_str(), "%s%n", name.get(), &used) != 1) {
        FUZZ_CHECK(memcmp(&s, &untouched, sizeof(s)) == 0);
        return;
    }
    FUZZ_CHECK(strncmp(s.name, name.get(), sizeof(s.name) - 1) == 0);
    FUZZ_CHECK(s.name[strnlen(name.get(), sizeof(s.name) - 1)] == '\0');
    unsigned c[7];
    for (unsigned &v : c) v = UNTOUCHED;
    const int n =
        sscanf(text.c_str() + used, "%u %u %u %u %u %u %u", &c[0], &c[1], &c[2], &c[3], &c[4], &c[5], &c[6]);
    const uint32_t got[7] = {s.user, s.nice, s.system, s.idle, s.iowait, s.irq, s.softirq};
    for (int i = 0; i < 7; ++i) FUZZ_CHECK(got[i] == (i < n ? c[i] : UNTOUCHED));
}

} // namespace

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    const size_t split = in.byte();
    const std::string line = in.rest();
    const cpu_stat_sample a = parsed(line);
    check_against_scanf(line, a);
    const std::string second = line.substr(split < line.size() ? split : line.size());
    const cpu_stat_sample b = parsed(second);
    check_against_scanf(second, b);
    const double usage = calc_cpu_usage(a, b);
    FUZZ_CHECK(usage == usage); // never NaN
    return 0;
}
