// port_status: the link state of each LAN port as the diagnosis manager
// reports it, one record per port; an error when no port is up.
#include <cstring>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/outside_text.h"
#include "engine/util.h"
#include "methods/methods.h"
#include "methods/result_word.h"
#include "records/records.h"

namespace zq {

namespace {

constexpr uint32_t SOME_PORT_UP = 1;
constexpr uint32_t ALL_PORTS_DOWN = 2;

// A gateway has a handful of LAN ports. A manager that reports an absurd
// count must not keep the diagnosis busy for hours (three commands per
// port), so the walk stops at this many ports, with a log line.
constexpr int MAX_PORTS = 64;

int port_count() {
    int count = zq::read_number("zq_get_port_status_diag", "port_num",
                                zq::view(zq_get_cmd_result("diagM get port_info port_num")));
    if (count < 1) return 1;
    if (count > MAX_PORTS) {
        ZQ_LOG("port count %d out of range, the first %d ports are checked", count, MAX_PORTS);
        return MAX_PORTS;
    }
    return count;
}

} // namespace

const char *get_port_info(const char *key, uint32_t index) {
    char cmd[128] = {};
    ZQ_FORMAT(cmd, "diagM get port_info %s %d", key, static_cast<int>(index));
    return zq_get_cmd_result(cmd);
}

int zq_get_port_status_struct(zq_diag_args args) {
    uint32_t index = 0;
    memcpy(&index, args.in_buf, sizeof(index));
    zqSD_port_diag block;
    memcpy(&block, args.out_buf, sizeof(block));
    zq::copy(block.status, get_port_info("status", index));
    zq::copy(block.speed, get_port_info("speed", index));
    zq::copy(block.duplex, get_port_info("duplex", index));
    memcpy(args.out_buf, &block, sizeof(block));
    return 0;
}

int zq_get_port_status_diag(zq_diag_args args) {
    const int count = port_count();
    uint32_t result = zq::read_result(args);
    for (int i = 0; i < count; ++i) {
        const auto index = static_cast<uint32_t>(i);
        zqSD_port_diag record{};
        zq_get_sys_diag("port_status", ACTION_STRUCT,
                        zq_args(&index, sizeof(index), &record, sizeof(record)));
        zq_diag_record(PORT_DIAG_DATA, &record, sizeof(record));
        if (zq::contains(record.status, "Up")) {
            result = SOME_PORT_UP;
            zq::write_result(args, result);
            zq_diag_msg_printf(DIAG_MSG_NORMAL, "Port[%d] up", i + 1);
        } else {
            zq_diag_msg_printf(DIAG_MSG_WARN, "Port[%d] down", i + 1);
        }
    }
    if (result == SOME_PORT_UP) return 0;
    zq::write_result(args, ALL_PORTS_DOWN);
    zq_diag_msg_printf(DIAG_MSG_ERROR, "All ports down");
    return 0;
}

// ---- Descriptor -------------------------------------------------------------

namespace {
constexpr zq::envoy_rules PORT_RULES = {zq::ANY_BLOCK, in_out_exact(sizeof(uint32_t), sizeof(zqSD_port_diag)),
                                        zq::out_exact(zq::RESULT_WORD_SIZE), zq::ANY_BLOCK};
} // namespace

const zq::method_descriptor port_status_method = {
    .entry = {.name = "port_status",
              .get_struct = zq_get_port_status_struct,
              .diag = zq_get_port_status_diag,
              .envoy = zq::envoy<PORT_RULES>},
};

} // namespace zq
