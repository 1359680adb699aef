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
