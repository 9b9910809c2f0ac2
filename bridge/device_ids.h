// Sparkplug device ids for the devices of a cycle.
#pragma once

#include <string>
#include <string_view>
#include <vector>

#include "cycle.h"

namespace bridge {

enum class DeviceIdMode { Name, Id };

// A device name usable as a topic level: '/', '+' and '#' become '_'.
std::string sanitized_device_name(std::string_view name);

// One id per device, in the order given. Mode Id: the dev_id in decimal.
// Mode Name: the sanitized dev_name (the dev_id when the name is empty),
// with "-<dev_id>" appended to every device whose id would be shared with
// another one. Ids that differ only in case count as shared, since
// Sparkplug ids must be distinct lower-cased. Ids thus depend on the other
// devices of the cycle: when one of two "press" devices is deleted, the
// other becomes "press" again (its old id dies, the new one is born).
std::vector<std::string> device_ids(const std::vector<DeviceReading> &devices, DeviceIdMode mode);

} // namespace bridge
