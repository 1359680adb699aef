// What the name check makes of the lookup pipeline's output ("nslookup NAME
// | grep NAME -A 1 | grep Address"): the output is read into the cleared
// 4096-byte command result buffer as zq_get_cmd_result does, and any text
// left there is an answer. The buffer must stay terminated and the verdict
// must be "text before the first NUL".
//
// Input: the pipeline's output bytes.
#include <cstdint>
#include <cstdio>
#include <string>

#include "engine/engine.h"
#include "engine/util.h"
#include "fuzz/fuzz_input.h"
#include "methods/methods.h"

using namespace zq;

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size) {
    fuzz_input in(data, size);
    std::string output = in.rest();
    static char buffer[ZQ_CMD_RESULT_SIZE];
    memset(buffer, 0, sizeof(buffer));
    const int fd = fuzz_output_fd(output);
    if (fd < 0) return 0;
    cmd_collect_output(fd, buffer, sizeof(buffer));
    close(fd);
    const std::string_view text = zq::view(buffer);
    FUZZ_CHECK(text.size() < sizeof(buffer));
    FUZZ_CHECK(dns_answer_found(text) == (buffer[0] != '\0'));
    return 0;
}
