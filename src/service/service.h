// Start-up, single-instance guard, bus name ownership.
#pragma once

#include <gio/gio.h>

#include "base/runtime.h"

int daemonize(const char *pid_file);
void sigroutine(int signo);
void on_name_acquired(GDBusConnection *connection, const gchar *name, gpointer user_data);
void on_name_lost(GDBusConnection *connection, const gchar *name, gpointer user_data);

// GLib reads G_SLICE once, in start-up code of its own that runs before
// main, and its slice magazines keep the freed blocks of a parsed bus
// message for good. glibc reads its tunables once too, and its per-thread
// caches keep up to seven freed blocks of each small size per thread, out of
// reach of malloc_trim: blocks of the bus worker's arena, where every call's
// message is parsed, stay cached by the worker and by the main thread (which
// frees the message once the call is answered), scattered through the arena,
// each keeping its page resident and the arena's top from coming down, and
// under a steady flow of configuration calls more and more pages are held
// so. So the process sets G_SLICE=always-malloc and
// glibc.malloc.tcache_count=0 for itself and starts over once, the first
// thing main does; whatever the caller's environment held for G_SLICE is
// overridden, other tunables are kept.
void use_plain_malloc(char **argv);

// Runs the whole service with the given paths; returns main's result.
// `after_init_driver`, when set, runs right after the drivers are registered
// (tests use it to add a driver of their own).
int service_main(const service_paths &paths, void (*after_init_driver)() = nullptr);
