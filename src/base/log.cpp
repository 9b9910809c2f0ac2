#include "base/log.h"

#include "base/handles.h"

#include <sys/time.h>

#include <cstdio>
#include <cstring>
#include <ctime>

namespace {
char time_text[256];
}

void log_init()
{
    g_log_set_default_handler(log_handler_1, nullptr);
}

void log_deinit()
{
}

char convert_logLevel_to_char(int log_level)
{
    switch (log_level) {
    case G_LOG_LEVEL_CRITICAL: return 'C';
    case G_LOG_LEVEL_WARNING: return 'W';
    case G_LOG_LEVEL_MESSAGE: return 'M';
    case G_LOG_LEVEL_INFO: return 'I';
    case G_LOG_LEVEL_DEBUG: return 'D';
    default: return 'E';
    }
}

namespace {
// "YYYY/MM/DD hh:mm:ss.uuuuuu" in local time.
gchar_owner current_time()
{
    const c_owner<GDateTime, g_date_time_unref> now(g_date_time_new_now_local());
    GDateTime *t = now.get();
    return gchar_owner(g_strdup_printf("%04d/%02d/%02d %02d:%02d:%02d.%06d", g_date_time_get_year(t),
                                       g_date_time_get_month(t), g_date_time_get_day_of_month(t),
                                       g_date_time_get_hour(t), g_date_time_get_minute(t),
                                       g_date_time_get_second(t), g_date_time_get_microsecond(t)));
}
} // namespace

void log_handler_1(const gchar * /*log_domain*/, GLogLevelFlags log_level, const gchar *message,
                   gpointer /*user_data*/)
{
    const int level = static_cast<int>(log_level);
    switch (level) {
    case G_LOG_LEVEL_ERROR | G_LOG_FLAG_FATAL:
    case G_LOG_LEVEL_CRITICAL:
    case G_LOG_LEVEL_WARNING: {
        const gchar_owner ts = current_time();
        fprintf(stderr, "%s %c %s", ts.get(), convert_logLevel_to_char(level), message);
        fflush(stderr);
        fprintf(stdout, "%s %c %s", ts.get(), convert_logLevel_to_char(level), message);
        fflush(stdout);
        break;
    }
    case G_LOG_LEVEL_MESSAGE: {
        const gchar_owner ts = current_time();
        fprintf(stdout, "%s %c %s", ts.get(), convert_logLevel_to_char(level), message);
        fflush(stdout);
        break;
    }
    case G_LOG_LEVEL_INFO:
    case G_LOG_LEVEL_DEBUG:
        fprintf(stdout, "%s", message);
        fflush(stdout);
        break;
    default:
        break;
    }
}

void log_handler(const gchar * /*log_domain*/, GLogLevelFlags log_level, const gchar *message,
                 gpointer /*user_data*/)
{
    const int level = static_cast<int>(log_level);
    const gchar_owner ts = current_time();
    fprintf(stdout, "%s,%c-%03d,%s", ts.get(), convert_logLevel_to_char(level), level, message);
}

void print_buf(const uint8_t *buf, size_t count)
{
    if (buf == nullptr)
        return;
    for (size_t i = 0; i < count; ++i) {
        g_print("%02XH ", buf[i]);
        if ((i + 1) % 10 == 0)
            g_print("\n");
    }
    if (count % 10 != 0)
        g_print("\n");
}

void print_payload(const uint8_t *buf, size_t count)
{
    for (size_t i = 0; buf != nullptr && i < count; ++i)
        g_print("%c", buf[i]);
    g_print("\n");
}

const char *get_time_sec()
{
    struct timeval tv {};
    gettimeofday(&tv, nullptr);
    struct tm tm_utc {};
    time_t secs = tv.tv_sec;
    gmtime_r(&secs, &tm_utc);
    // The locale's own date and time: "%x" is what the traces have always shown.
#pragma GCC diagnostic push
#pragma GCC diagnostic ignored "-Wformat-y2k"
    strftime(time_text, sizeof time_text, "%x %X", &tm_utc);
#pragma GCC diagnostic pop
    return time_text;
}

void append_msec(char *buf, size_t size, int msec)
{
    const size_t used = strnlen(buf, size);
    if (used < size)
        snprintf(buf + used, size - used, ".%d", msec);
}

const char *get_time_msec()
{
    // Two clock readings on purpose: the milliseconds may belong to the
    // neighbouring second near a boundary; the trace only needs a rough stamp.
    struct timeval tv {};
    gettimeofday(&tv, nullptr);
    const int msec = static_cast<int>(tv.tv_usec / 1000);
    get_time_sec();
    append_msec(time_text, sizeof time_text, msec);
    return time_text;
}
