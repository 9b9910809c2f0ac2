#include "device_ids.h"

#include <glib.h>

#include <map>

namespace bridge {

namespace {

std::string folded(const std::string &id)
{
    std::string out(id);
    for (char &c : out)
        c = g_ascii_tolower(c);
    return out;
}

} // namespace

std::string sanitized_device_name(std::string_view name)
{
    std::string out(name);
    for (char &c : out)
        if (c == '/' || c == '+' || c == '#')
            c = '_';
    return out;
}

std::vector<std::string> device_ids(const std::vector<DeviceReading> &devices, DeviceIdMode mode)
{
    std::vector<std::string> ids;
    ids.reserve(devices.size());
    for (const DeviceReading &d : devices)
        ids.push_back(mode == DeviceIdMode::Id || d.dev_name.empty()
                          ? std::to_string(d.dev_id)
                          : sanitized_device_name(d.dev_name));
    if (mode == DeviceIdMode::Id)
        return ids;

    // A suffixed id can meet another device's name ("a" of device 1 becomes
    // "a-1", which a device may be called): repeat until all are distinct.
    // Each round suffixes at least one device, and a suffixed id ends in its
    // own dev_id, so two suffixed ids never meet.
    std::vector<bool> suffixed(devices.size(), false);
    for (;;) {
        std::map<std::string, std::vector<size_t>> holders;
        for (size_t i = 0; i < ids.size(); ++i)
            holders[folded(ids[i])].push_back(i);
        bool changed = false;
        for (const auto &[id, who] : holders) {
            if (who.size() < 2)
                continue;
            for (size_t i : who)
                if (!suffixed[i]) {
                    ids[i] += "-" + std::to_string(devices[i].dev_id);
                    suffixed[i] = true;
                    changed = true;
                }
        }
        if (!changed)
            return ids;
    }
}

} // namespace bridge
