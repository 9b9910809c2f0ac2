// Diagnostics output: the installed GLib log handler and the small
// formatting helpers used by drivers and handlers for traces.
#pragma once

#include <glib.h>

#include <cstddef>
#include <cstdint>

void log_init();
void log_deinit();

// Installed as the default handler: warnings and worse go to stderr and
// again to stdout with a timestamp and level letter; info/debug are bare.
void log_handler_1(const gchar *log_domain, GLogLevelFlags log_level, const gchar *message,
                   gpointer user_data);
// Alternative format, kept but never installed.
void log_handler(const gchar *log_domain, GLogLevelFlags log_level, const gchar *message,
                 gpointer user_data);

char convert_logLevel_to_char(int log_level);

void print_buf(const uint8_t *buf, size_t count);
void print_payload(const uint8_t *buf, size_t count);

// UTC wall clock as "%x %X"; both share one static buffer (main thread only).
const char *get_time_sec();
const char *get_time_msec();
// The millisecond suffix as get_time_msec appends it (".5" for 5 ms).
void append_msec(char *buf, size_t size, int msec);
