// Action slots of the diagnosis methods, referenced by the method table.
#pragma once

#include "zq_diag.h"

// pon_status
int zq_get_pon_status_struct(zq_diag_args args);
int zq_get_pon_status_diag(zq_diag_args args);
int zq_get_pon_status_fix(zq_diag_args args);
void zq_get_customver(char *out);
int is_pondetect_present();
int is_pon_detect_on();

// dhcp_status
int zq_get_dhcp_status_diag(zq_diag_args args);
int dhcp_filter_special(const char *interface);
uint32_t dhcp_packet_flags();

// pppoe_status
int zq_get_pppoe_diag(zq_diag_args args);
uint32_t zq_check_pppoe_error();
int pppoe_filter_special(const char *interface);
