#include "device/registry/driver.h"
#include "device/driver/driver_modules.h"

// This order is the matching order.
const driver_module driver_modules[] = {
    {mitsubishi_fx1n_init, mitsubishi_fx1n_deinit},
    {mitsubishi_fx3u_init, mitsubishi_fx3u_deinit},
    {mitsubishi_fx5u_init, mitsubishi_fx5u_deinit},
    {mitsubishi_QnA_3E_init, mitsubishi_QnA_3E_deinit},
    {mitusbishi_Qserial_init, mitusbishi_Qserial_deinit},
    {siemens_s7_200_init, siemens_s7_200_deinit},
    {siemens_s7_200smart_init, siemens_s7_200smart_deinit},
    {siemens_s7_1200_init, siemens_s7_1200_deinit},
    {siemens_s7_1500_init, siemens_s7_1500_deinit},
    {siemens_s7_300_init, siemens_s7_300_deinit},
    {siemens_s7_400_init, siemens_s7_400_deinit},
    {delta_dvp32ec_init, delta_dvp32ec_deinit},
    {nullptr, nullptr},
};

void init_driver()
{
    init_driver_modules(driver_modules);
}

void deinit_driver()
{
    deinit_driver_modules(driver_modules);
}
