#include "device/plc/plc_device.h"

#include <glib.h>

const char *dev_mfg_text(uint32_t code)
{
    switch (code) {
    case DEV_MFG_MITSUBISHI: return "Mitsubishi";
    case DEV_MFG_SIEMENS: return "Siemens";
    case DEV_MFG_DELTA: return "Delta";
    default: return "Unknown";
    }
}

const char *dev_type_text(uint32_t code)
{
    switch (code) {
    case DEV_TYPE_S7_200: return "S7-200";
    case DEV_TYPE_S7_200_SMART: return "S7-200 Smart";
    case DEV_TYPE_S7_1200: return "S7-1200";
    case DEV_TYPE_S7_1500: return "S7-1500";
    case DEV_TYPE_S7_300: return "S7-300";
    case DEV_TYPE_S7_400: return "S7-400";
    case DEV_TYPE_FX_3U: return "FX-3U";
    case DEV_TYPE_FX_1N: return "FX-1N";
    case DEV_TYPE_FX_5U: return "FX-5U";
    case DEV_TYPE_QNA_3E: return "QnA_3E";
    case DEV_TYPE_DVP_32EC: return "DVP-32EC";
    // The Q serial model (105) has never had a display text of its own; the
    // configuration tools expect "Unknown" for it.
    default: return "Unknown";
    }
}

const char *node_data_type_text(uint32_t code)
{
    static const char *const texts[] = {"Bit",   "U8",    "S8",    "U16",   "S16",
                                        "U32",   "S32",   "BCD16", "BCD32", "Float",
                                        "HEX16", "HEX32", "BIN16", "BIN32", "String"};
    if (code >= 1 && code <= G_N_ELEMENTS(texts))
        return texts[code - 1];
    return "Unknown";
}

void convert_dev_mfg(uint32_t code, char *text, size_t size)
{
    g_strlcpy(text, dev_mfg_text(code), size);
}

void convert_dev_type(uint32_t code, char *text, size_t size)
{
    g_strlcpy(text, dev_type_text(code), size);
}

void convert_node_data_type(uint32_t code, char *text, size_t size)
{
    g_strlcpy(text, node_data_type_text(code), size);
}

void plc_error_report(const char *module, const char *func, int line, const char *msg)
{
    printf("\n\nFile: %s\nFunc: %s\nLine: %d\nMsg: %s\n\n", module, func, line, msg);
}
