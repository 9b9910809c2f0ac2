// One device's a(ssus) of the `nodes` signal, written straight into its
// serialised form in one reused buffer. GVariantBuilder would make about a
// dozen heap blocks per node (a GVariant and a GBytes for every field, the
// tuple and its child array); this makes one block per device.
#pragma once

#include <glib.h>

#include <cstdint>
#include <vector>

class node_array_writer {
public:
    // Starts an empty array; the buffer's memory is kept for the next one.
    void clear();
    void add(const char *name, const char *addr, uint32_t data_type, const char *value);
    size_t count() const { return ends_.size(); }
    // A new floating a(ssus) holding a copy of the array.
    GVariant *end();

private:
    std::vector<unsigned char> body_;
    std::vector<size_t> ends_; // where each element ends, for the framing offsets
};
