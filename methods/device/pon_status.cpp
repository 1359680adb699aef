// pon_status: the fibre side of the gateway (PON technology, management
// protocol daemon, registration, optical power) and the PON debug switches.
#include <cstddef>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "engine/engine.h"
#include "engine/log.h"
#include "engine/util.h"
#include "methods/methods.h"
#include "methods/result_word.h"
#include "records/records.h"

// The exported functions below use the library's internals by name.
using namespace zq;

namespace zq {

namespace {

// The status block is the record without its last word.
constexpr size_t PON_BLOCK_SIZE = offsetof(zqSD_pon_diag, reg_state);
constexpr float RX_POWER_MIN = -27.0f;
constexpr float RX_POWER_MAX = -8.0f;
constexpr unsigned DEBUG_STATE_SETTLE_US = 300000;
constexpr size_t CUSTNAME_LINE = 20;

enum : uint32_t { PON_REGISTERED = 0, PON_NO_LINK = 1, PON_NOT_REGISTERED = 2 };

// Registration state from the state text, tested in this order.
struct reg_rule {
    const char *marker;
    uint32_t state;
};
constexpr reg_rule REG_RULES[] = {{"NO_LINKED", PON_NO_LINK}, {"NOT_REGISTERED", PON_NOT_REGISTERED}};

uint32_t reg_state_of(const char (&pon_state)[32]) {
    for (const reg_rule &rule : REG_RULES)
        if (zq::contains(pon_state, rule.marker)) return rule.state;
    return PON_REGISTERED;
}

bool is_gpon() { return contains(get_pon_info("pon_mode"), "GPON"); }

float power_of(const char *key) { return static_cast<float>(strtod(get_pon_info(key), nullptr)); }

// The protocol daemon that speaks to the line terminal, per PON mode.
struct pon_daemon {
    const char *mode;
    const char *process;
    const char *log_text;
    const char *finding;
};
constexpr pon_daemon PON_DAEMONS[] = {
    {"GPON", "omci_app", "gpon mode but omci_app is down, please wait for its restart",
     "OMCI process down , please restart the ONU "},
    {"EPON", "eponoamd", "epon mode but eponoamd is down", "OAM process down , please restart the ONU "},
};

// Debug switch commands: [gpon][on].
constexpr const char *DEBUG_COMMANDS[2][2][3] = {
    {{"oamcli set dbgflag 0x00000000", nullptr, nullptr},
     {"oamcli set dbgflag 0xffffffff", nullptr, nullptr}},
    {{"omcicli set log off off", "omcicli set logfile 0 0", "rm /tmp/omcilog.par"},
     {"omcicli set log dbg dbg", "omcicli set logfile 6 0xffffffff", nullptr}},
};

} // namespace

void zq_get_customver(char *out) {
    if (!out) return;
    FILE *file = fopen("/etc/custname", "r");
    if (!file) {
        ZQ_LOG("fp open fail!");
        return;
    }
    char line[CUSTNAME_LINE] = {};
    if (fgets(line, sizeof(line), file)) memcpy(out, line, sizeof(line));
    fclose(file);
}

int is_pondetect_present() {
    return zq::contains(zq_get_cmd_result("ls /bin | grep pondetect"), "pondetect");
}

int is_pon_detect_on() { return contains(zq_get_cmd_result("flash get PON_DETECT"), "=1"); }

int zq_get_pon_status_struct(zq_diag_args args) {
    zqSD_pon_diag block;
    memcpy(&block, args.out_buf, PON_BLOCK_SIZE);
    zq::copy(block.pon_mode, get_pon_info("pon_mode"));
    zq::copy(block.pon_state, get_pon_info("pon_state"));
    block.tx_power = power_of("pon_tx_power");
    block.rx_power = power_of("pon_rx_power");
    char customer_ver[CUSTNAME_LINE] = {};
    zq_get_customver(customer_ver);
    memcpy(block.customer_ver, customer_ver, sizeof(customer_ver));
    memcpy(args.out_buf, &block, PON_BLOCK_SIZE);
    return 0;
}

int zq_get_pon_status_diag(zq_diag_args args) {
    zqSD_pon_diag record{};
    uint32_t unused_index = 0;
    zq_get_sys_diag("pon_status", ACTION_STRUCT,
                    zq_args(&unused_index, sizeof(unused_index), &record, PON_BLOCK_SIZE));

    for (const pon_daemon &daemon : PON_DAEMONS) {
        if (zq::contains(record.pon_mode, daemon.mode) && zq_get_pid(daemon.process) == 0) {
            ZQ_LOG("%s", daemon.log_text);
            zq_diag_msg_printf(DIAG_MSG_ERROR, "%s", daemon.finding);
            return 0;
        }
    }

    const uint32_t result = reg_state_of(record.pon_state);
    zq::write_result(args, result);
    record.reg_state = result;
    zq_diag_record(PON_DIAG_DATA, &record, sizeof(record));

    switch (result) {
    case PON_REGISTERED:
        zq_diag_msg_printf(DIAG_MSG_NORMAL, "Pon registered");
        break;
    case PON_NO_LINK:
        zq_diag_msg_printf(DIAG_MSG_ERROR, "Pon not linked");
        break;
    default:
        zq_diag_msg_printf(DIAG_MSG_ERROR, "Pon is %s", record.pon_state);
        if (is_pondetect_present()) {
            if (is_pon_detect_on())
                zq_diag_msg_printf(DIAG_MSG_NORMAL, "Pon auto detect has opened");
            else
                zq_diag_msg_printf(DIAG_MSG_WARN, "Pon auto detect did not open! --Repairable");
        }
        if (zq::contains(record.customer_ver, "lock") && !zq::contains(record.customer_ver, "unlock"))
            zq_diag_msg_printf(DIAG_MSG_WARN, "Software version is lockver!");
        break;
    }

    const bool normal = record.rx_power >= RX_POWER_MIN && record.rx_power <= RX_POWER_MAX;
    zq_diag_msg_printf(normal ? DIAG_MSG_NORMAL : DIAG_MSG_ERROR,
                       "Optical power is %s [rx_power: %.2f dBm] [tx-power: %.2f dBm]",
                       normal ? "normal" : "abnormal", static_cast<double>(record.rx_power),
                       static_cast<double>(record.tx_power));
    return 0;
}

// Switching auto-detection on takes effect after a reboot, which is left to
// the user.
int zq_get_pon_status_fix(zq_diag_args) {
    if (is_pon_detect_on()) return 0;
    if (zq::contains(zq_get_cmd_result("flash set PON_DETECT 1"), "=1"))
        zq_diag_msg_printf(DIAG_MSG_NORMAL,
                           "Pon auto detect was turn on. Please reboot device to take effect!");
    else
        zq_diag_msg_printf(DIAG_MSG_ERROR, "Pon auto detect was turn on fail!");
    return 0;
}

} // namespace zq

int get_pon_debug_flag() {
    zq_system(is_gpon() ? "omcicli get log" : "oamcli get dbgflag");
    usleep(DEBUG_STATE_SETTLE_US);
    return zq::to_int(zq_get_cmd_result("cat /tmp/pon_debug_status"));
}

int set_pon_debug_flag(int on) {
    int status = 0;
    for (const char *cmd : DEBUG_COMMANDS[is_gpon() ? 1 : 0][on ? 1 : 0])
        if (cmd) status = zq_system(cmd);
    return status;
}

int is_pon_auth_normal() { return contains(get_pon_info("pon_state"), "NORMAL") ? 1 : 0; }

namespace zq {

// ---- Descriptor -------------------------------------------------------------

namespace {
constexpr zq::envoy_rules PON_RULES = {zq::ANY_BLOCK, out_exact(PON_BLOCK_SIZE),
                                       zq::out_exact(zq::RESULT_WORD_SIZE), zq::ANY_BLOCK};

// An unregistered PON is re-registered by the fix path.
int pon_status_fix_condition() {
    return any_diag_record<zqSD_pon_diag>(
        __func__, [](const zqSD_pon_diag &r) { return r.reg_state == PON_NOT_REGISTERED; });
}
} // namespace

const zq::method_descriptor pon_status_method = {
    .entry = {.name = "pon_status",
              .get_struct = zq_get_pon_status_struct,
              .diag = zq_get_pon_status_diag,
              .fix = zq_get_pon_status_fix,
              .envoy = zq::envoy<PON_RULES>},
    .fix_when = pon_status_fix_condition,
};

} // namespace zq
