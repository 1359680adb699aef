/*
 * A firmware program built against an installed libzqdiag: plain C11,
 * linked with the shared object only.
 */
#include <zq_diag.h>

#include <stdio.h>

int main(void) {
    int failures = 0;
    uint64_t wan = get_diag_data_size(WAN_DIAG_DATA);
    if (wan != sizeof(zqSD_wan_diag) || wan != 308) {
        printf("get_diag_data_size(WAN_DIAG_DATA) = %llu, want 308\n", (unsigned long long)wan);
        failures++;
    }
    if (get_diag_data_size(SYS_DIAG_DATA) != 432) {
        printf("get_diag_data_size(SYS_DIAG_DATA) != 432\n");
        failures++;
    }
    /* The control block is the library's own object, zeroed at load. */
    diag_exec_ctl *ctl = &g_diag_exec;
    if (ctl->state != EXEC_IDLE || ctl->worker != 0) {
        printf("g_diag_exec is not idle at load\n");
        failures++;
    }
    ctl->mode = 7;
    if (g_diag_exec.mode != 7) failures++;
    ctl->mode = 0;
    printf("consumer: %s\n", failures ? "FAILED" : "ok");
    return failures ? 1 : 0;
}
