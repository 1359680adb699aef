/* The public header as management processes see it, compiled as pedantic C11 and as C++: compiling is the
 * test. The header pins every layout; this file pins the constants and the type of every exported name. */
#include "zq_diag.h"
#include "zq_diag.h" /* the include guard holds */

#ifdef __cplusplus
#define PIN(cond) static_assert(cond, #cond)
#else
#define PIN(cond) _Static_assert(cond, #cond)
#endif

PIN(ACTION_RAW_DATA == 0 && ACTION_STRUCT == 1 && ACTION_DIAG == 2 && ACTION_FIX == 3);
PIN(EXEC_IDLE == 0 && EXEC_RUNNING == 1 && EXEC_DONE == 2);
PIN(EXEC_UPLOADED == 3 && EXEC_UPLOADING == 4 && EXEC_UPLOAD_FAIL == 5);
PIN(UPLOAD_PROTOCOL_FTP == 0 && UPLOAD_PROTOCOL_TFTP == 1);
PIN(DIAG_MSG_NORMAL == 0 && DIAG_MSG_SUCCESS == 1 && DIAG_MSG_WARN == 2 && DIAG_MSG_ERROR == 3);
PIN(ZQ_DIAG_MSG_SIZE == 4096 && ZQ_CMD_RESULT_SIZE == 4096);
PIN(WAN_DIAG_DATA == 1 && PORT_DIAG_DATA == 2 && PON_DIAG_DATA == 3);
PIN(DHCP_DIAG_DATA == 4 && SYS_DIAG_DATA == 5);
PIN(WAN_CONNECT_NORMAL == 0 && WAN_CONNECT_UNSTABLE == 1 && WAN_GATEWAY_UNREACHABLE == 2);
PIN(WAN_DHCP_SERVICE_ERROR == 3 && WAN_PPP_SERVICE_ERROR == 4 && WAN_STATIC_SERVICE_ERROR == 5);
PIN(ALARM_HIGH_MEMORY == 0x08 && ALARM_HIGH_CPU == 0x10);
PIN(PING_NORMAL == 0 && PING_SLOW == 1 && PING_JITTER == 2);
PIN(PING_LOSS == 3 && PING_UNREACHABLE == 4 && PING_NO_STATS == 5);

/* Exported objects: a pointer of the exact type, for buffers with their length, takes each one (the header
 * pins the structures' sizes). */
diag_exec_ctl *abi_g_diag_exec = &g_diag_exec, *abi_g_cap_exec = &g_cap_exec;
char (*abi_zq_diag_msg)[4096] = &zq_diag_msg, (*abi_zq_cmd_result_buff)[4096] = &zq_cmd_result_buff;
char (*abi_zq_running_method)[32] = &zq_running_method;
diag_data_node *abi_zq_diag_data_chain = &zq_diag_data_chain;
uint8_t *abi_do_not_generate_log = &do_not_generate_log;

/* Exported functions: likewise. */
#define SIG(ret, name, params) ret(*abi_##name) params = name;
SIG(char *, zq_get_cmd_result, (const char *))
SIG(int, zq_get_cmd_buff, (const char *, void *, uint64_t))
SIG(uint64_t, zq_get_pid, (const char *))
SIG(int, get_diag_permit, (void))
SIG(int, release_diag_permit, (void))
SIG(int, is_diag_permit_holding, (void))
SIG(int, is_diag_avaliable, (void))
SIG(uint32_t, get_diag_alarm_value, (void))
SIG(int, check_diag_alarm_value, (uint32_t))
SIG(int, is_self_diagnose_enable, (void))
SIG(int, is_iperf_test_enable, (void))
SIG(int, is_ap_detect_available, (void))
SIG(uint64_t, get_diag_data_size, (uint32_t))
SIG(diag_data_node *, zq_search_diag_record, (uint32_t))
SIG(int, diagnose_set, (void))
SIG(int, run_spec_entire_diag, (uint32_t))
SIG(int, run_spec_entire_fix, (uint32_t))
SIG(int, zq_intact_diag_run, (zq_diag_step *))
SIG(int, zq_diag_path_search, (zq_diag_step *))
SIG(int, zq_fix_path_search, (zq_diag_step *))
SIG(int, is_zq_fix_available, (void))
SIG(int, zq_packet_diag_file, (void))
SIG(int, zq_clear_diag_file, (void))
SIG(int, get_pon_debug_flag, (void))
SIG(int, set_pon_debug_flag, (int))
SIG(int, is_pon_auth_normal, (void))
