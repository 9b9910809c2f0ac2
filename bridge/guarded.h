// Calls made from C callbacks (GLib, GDBus, libmosquitto): nothing may be
// thrown back across them, so a failure is logged where it happened.
#pragma once

#include <glib.h>

#include <exception>

namespace bridge {

template <typename Fn>
void guarded(const char *what, Fn &&fn) noexcept
{
    try {
        fn();
    } catch (const std::exception &e) {
        g_critical("%s: %s", what, e.what());
    } catch (...) {
        g_critical("%s: unexpected failure", what);
    }
}

} // namespace bridge
