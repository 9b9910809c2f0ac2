#include "device/registry/driver.h"

#include <unordered_map>

namespace {
GSList *driver_slist = nullptr;
GSList *device_slist = nullptr;
GSList *device_tail = nullptr;
std::unordered_multimap<uint32_t, plc_device *> device_index;
} // namespace

int init_driver_modules(const driver_module *table)
{
    for (int i = 0;; ++i) {
        if (table[i].init == nullptr)
            break;
        if (table[i].init() != 0) {
            g_print("<%s>: failed to init driver modules[%d]\n", __func__, i);
            break;
        }
    }
    g_print("<%s>: succeed to init driver modules\n", __func__);
    return 0;
}

int deinit_driver_modules(const driver_module *table)
{
    for (int i = 0;; ++i) {
        if (table[i].deinit == nullptr)
            break;
        if (table[i].deinit() != 0) {
            g_print("<%s>: failed to deinit driver modules[%d]\n", __func__, i);
            break;
        }
    }
    g_print("<%s>: succeed to deinit driver modules\n", __func__);
    return 0;
}

int driver_register(driver *drv)
{
    driver_slist = g_slist_append(driver_slist, drv);
    return 0;
}

int driver_unregister(driver *drv)
{
    driver_slist = g_slist_remove(driver_slist, drv);
    return 0;
}

GSList *get_activated_driver()
{
    return driver_slist;
}

int device_register(plc_device *dev)
{
    if (dev == nullptr) {
        g_print("<%s>: Failed to registe device(dev == NULL)\n", __func__);
        return -1;
    }
    // Indexed first: when that throws, the list has not changed.
    device_index.emplace(dev->dev_id, dev);
    GSList *cell = g_slist_alloc();
    cell->data = dev;
    cell->next = nullptr;
    if (device_tail != nullptr)
        device_tail->next = cell;
    else
        device_slist = cell;
    device_tail = cell;
    return 0;
}

int device_unregister(plc_device *dev)
{
    if (dev == nullptr) {
        g_print("<%s>: Failed to unregiste device(dev == NULL)\n", __func__);
        return -1;
    }
    GSList *prev = nullptr;
    for (GSList *cell = device_slist; cell != nullptr; prev = cell, cell = cell->next) {
        if (cell->data != dev)
            continue;
        if (prev != nullptr)
            prev->next = cell->next;
        else
            device_slist = cell->next;
        if (device_tail == cell)
            device_tail = prev;
        g_slist_free_1(cell);
        auto range = device_index.equal_range(dev->dev_id);
        for (auto it = range.first; it != range.second; ++it) {
            if (it->second == dev) {
                device_index.erase(it);
                break;
            }
        }
        break;
    }
    return 0;
}

GSList *get_activated_device()
{
    return device_slist;
}

plc_device *device_find(uint32_t dev_id)
{
    // The list order decides which of two equal ids is found first.
    auto range = device_index.equal_range(dev_id);
    if (range.first == range.second)
        return nullptr;
    if (std::next(range.first) == range.second)
        return range.first->second;
    for (GSList *cell = device_slist; cell != nullptr; cell = cell->next) {
        auto *dev = static_cast<plc_device *>(cell->data);
        if (dev->dev_id == dev_id)
            return dev;
    }
    return nullptr;
}

driver *device_driver_match(const plc_device *dev)
{
    for (GSList *cell = driver_slist; cell != nullptr; cell = cell->next) {
        auto *drv = static_cast<driver *>(cell->data);
        g_print("<%s> called, try to match dev(%d/%d), drv(%d/%d)\n", __func__, dev->dev_mfg,
                dev->dev_type, drv->mfg, drv->type);
        if (dev->dev_mfg == drv->mfg && dev->dev_type == drv->type) {
            g_print("<%s> called, succeed to match\n", __func__);
            return drv;
        }
    }
    g_print("<%s> called, failed to match\n", __func__);
    return nullptr;
}

void *__get_drvdata(const plc_device *dev)
{
    return dev != nullptr && dev->driver != nullptr ? dev->driver->priv : nullptr;
}

int driver_stub_open(plc_device * /*dev*/)
{
    return -1;
}

int driver_stub_read(plc_device * /*dev*/, char * /*addr*/, uint32_t /*data_type*/,
                     char * /*value*/)
{
    return -1;
}

int driver_stub_release(plc_device * /*dev*/)
{
    return 0;
}

int driver_stub_write(plc_device * /*dev*/, const char * /*addr*/, uint32_t /*data_type*/,
                      const char * /*value*/)
{
    return 0;
}

int driver_stub_dev(plc_device * /*dev*/)
{
    return 0;
}
