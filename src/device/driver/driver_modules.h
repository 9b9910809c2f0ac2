// The compiled-in drivers: their init/deinit, and the table that runs them.
#pragma once

#include "device/registry/driver.h"

// The compiled-in drivers in matching order, ended by a pair of nulls.
extern const driver_module driver_modules[];

// Registers (probes) every compiled-in driver, and the reverse.
void init_driver();
void deinit_driver();

int mitsubishi_fx1n_init();
int mitsubishi_fx1n_deinit();
int mitsubishi_fx3u_init();
int mitsubishi_fx3u_deinit();
int mitsubishi_fx5u_init();
int mitsubishi_fx5u_deinit();
int mitsubishi_QnA_3E_init();
int mitsubishi_QnA_3E_deinit();
int mitusbishi_Qserial_init();
int mitusbishi_Qserial_deinit();
int siemens_s7_200_init();
int siemens_s7_200_deinit();
int siemens_s7_200smart_init();
int siemens_s7_200smart_deinit();
int siemens_s7_1200_init();
int siemens_s7_1200_deinit();
int siemens_s7_1500_init();
int siemens_s7_1500_deinit();
int siemens_s7_300_init();
int siemens_s7_300_deinit();
int siemens_s7_400_init();
int siemens_s7_400_deinit();
int delta_dvp32ec_init();
int delta_dvp32ec_deinit();
