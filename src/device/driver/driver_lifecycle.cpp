#include "device/driver/driver_lifecycle.h"

void driver_say(const driver_voice &v, driver_where at, const char *text)
{
    if (v.level == 0)
        g_print("%s", text);
    else
        g_log(G_LOG_DOMAIN, v.level, "%s:%d %s", v.name_file ? at.file : at.func, at.line, text);
}

void *driver_data(const driver &drv, const driver_voice &v, driver_where at)
{
    if (drv.priv != nullptr)
        return drv.priv;
    if (v.level == 0)
        g_print("<%s>: Failed to get drvdata\n", at.func);
    else
        g_log(G_LOG_DOMAIN, v.level, "%s:%d drvdata = NULL\n", at.func, at.line);
    return nullptr;
}

int driver_common_init(driver &drv, const char *func)
{
    g_print("<%s> called\n", func);
    driver_register(&drv);
    drv.probe();
    return 0;
}

int driver_common_deinit(driver &drv, const char *func)
{
    g_print("<%s> called\n", func);
    driver_unregister(&drv);
    drv.remove();
    return 0;
}

int driver_common_probe(driver &drv, const driver_voice &v, driver_where at, size_t priv_size,
                        const char *present_text)
{
    driver_log_only(v, at.func);
    if (drv.priv != nullptr) {
        driver_say(v, at, present_text);
        return 0;
    }
    drv.priv = g_try_malloc0(priv_size);
    if (drv.priv != nullptr)
        return 0;
    if (v.level == 0)
        g_print("<%s> called: failed to alloc memory\n", at.func);
    else
        driver_data(drv, v, at); // says "drvdata = NULL"
    return -1;
}

int driver_common_remove(driver &drv, const driver_voice &v, driver_where at, const char *missing_text)
{
    driver_log_only(v, at.func);
    if (drv.priv == nullptr) {
        driver_say(v, at, missing_text);
        return 0;
    }
    g_free(drv.priv);
    drv.priv = nullptr;
    return 0;
}

int driver_log_only(const driver_voice &v, const char *func)
{
    if (v.bracketed)
        g_print("<%s> called\n", func);
    else
        g_print("%s called\n", func);
    return 0;
}
