#include "acquisition/node_array.h"

#include <cstring>

namespace {

// GVariant's framing: a container's offsets are 1, 2, 4 or 8 bytes wide, the
// narrowest in which the whole container, offsets included, can be addressed.
size_t total_size(size_t body, size_t offsets)
{
    if (body + offsets <= G_MAXUINT8)
        return body + offsets;
    if (body + 2 * offsets <= G_MAXUINT16)
        return body + 2 * offsets;
    if (body + 4 * offsets <= G_MAXUINT32)
        return body + 4 * offsets;
    return body + 8 * offsets;
}

size_t offset_width(size_t total)
{
    if (total > G_MAXUINT32)
        return 8;
    if (total > G_MAXUINT16)
        return 4;
    if (total > G_MAXUINT8)
        return 2;
    return total > 0 ? 1 : 0;
}

void put_le(unsigned char *at, size_t value, size_t width)
{
    for (size_t i = 0; i < width; ++i)
        at[i] = static_cast<unsigned char>(value >> (8 * i));
}

void append_text(std::vector<unsigned char> &out, const char *s)
{
    const auto *p = reinterpret_cast<const unsigned char *>(s);
    out.insert(out.end(), p, p + strlen(s) + 1);
}

void pad_to_4(std::vector<unsigned char> &out)
{
    while ((out.size() & 3) != 0)
        out.push_back(0);
}

} // namespace

void node_array_writer::clear()
{
    body_.clear();
    ends_.clear();
}

void node_array_writer::add(const char *name, const char *addr, uint32_t data_type,
                            const char *value)
{
    // Elements start at multiples of 4, the tuple's alignment (that of its u).
    pad_to_4(body_);
    const size_t start = body_.size();
    append_text(body_, name);
    const size_t name_end = body_.size() - start;
    append_text(body_, addr);
    const size_t addr_end = body_.size() - start;
    pad_to_4(body_);
    const auto *code = reinterpret_cast<const unsigned char *>(&data_type);
    body_.insert(body_.end(), code, code + sizeof data_type);
    append_text(body_, value);
    // The two inner strings' ends follow the tuple, the first one last.
    const size_t width = offset_width(total_size(body_.size() - start, 2));
    const size_t at = body_.size();
    body_.resize(at + 2 * width);
    put_le(&body_[at], addr_end, width);
    put_le(&body_[at + width], name_end, width);
    ends_.push_back(body_.size());
}

GVariant *node_array_writer::end()
{
    if (ends_.empty())
        return g_variant_new_array(G_VARIANT_TYPE("(ssus)"), nullptr, 0);
    const size_t total = total_size(body_.size(), ends_.size());
    const size_t width = offset_width(total);
    auto *data = static_cast<unsigned char *>(g_malloc(total));
    memcpy(data, body_.data(), body_.size());
    unsigned char *at = data + body_.size();
    for (size_t end : ends_) {
        put_le(at, end, width);
        at += width;
    }
    return g_variant_new_from_data(G_VARIANT_TYPE("a(ssus)"), data, total, TRUE, g_free, data);
}
