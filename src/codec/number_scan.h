// The number of a device address read as scanf's "%d" or "%o" reads it,
// without the undefined behaviour of a number past int.
#pragma once

#include <glib.h>

#include <algorithm>

// Spaces, a sign, then digits of `base` (8 or 10): the value, its size held
// at `cap` so that a long number never wraps round into range. `digits`,
// if given, tells whether any digit was read; none gives 0.
inline long long scan_number(const char *p, int base, long long cap, bool *digits = nullptr)
{
    while (g_ascii_isspace(*p))
        ++p;
    const bool negative = *p == '-';
    if (*p == '+' || *p == '-')
        ++p;
    const char *first = p;
    long long v = 0;
    for (; *p >= '0' && *p < '0' + base; ++p)
        v = std::min(v * base + (*p - '0'), cap);
    if (digits != nullptr)
        *digits = p != first;
    return negative ? -v : v;
}
