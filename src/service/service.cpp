#include "service/service.h"

#include <fcntl.h>
#include <malloc.h>
#include <glib-unix.h>
#include <pthread.h>
#include <unistd.h>

#include <cerrno>
#include <climits>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <string>

#include "acquisition/acquisition.h"
#include "acquisition/upstream.h"
#include "database/restore.h"
#include "device/driver/driver_modules.h"
#include "config/plc_dispatch.h"
#include "base/handles.h"
#include "base/log.h"
#include "service/system_notify.h"

namespace {
constexpr char SERVICE_NAME[] = "com.fernwick.DeviceService";
constexpr char SERVICE_PATH[] = "/com/fernwick/DeviceService";
constexpr char SYSTEM_SERVICE_NAME[] = "com.fernwick.SystemService";
constexpr char ZORV_SERVICE_NAME[] = "com.fernwick.ZorvService";
} // namespace

int daemonize(const char *pid_file)
{
    fd_owner fd(open(pid_file, O_RDWR | O_CREAT, 0644));
    if (fd.get() < 0) {
        g_log(nullptr, G_LOG_LEVEL_CRITICAL, "can't open %s: %s\n", pid_file, strerror(errno));
        return -1;
    }
    struct flock fl {};
    fl.l_type = F_WRLCK;
    fl.l_whence = SEEK_SET;
    fl.l_start = 0;
    fl.l_len = 0;
    if (fcntl(fd.get(), F_SETLK, &fl) < 0) {
        const int err = errno;
        // Only a lock held by someone else closes the descriptor; on any other
        // error it stays open, as it always has.
        if (err != EACCES && err != EAGAIN)
            fd.release();
        g_log(nullptr, G_LOG_LEVEL_CRITICAL, "can't lock %s: %s\n", pid_file, strerror(err));
        return -1;
    }
    // From here on the descriptor stays open: on success the lock lives as
    // long as the process.
    const int locked = fd.release();
    if (ftruncate(locked, 0) != 0)
        return -1;
    char buf[32];
    const int len = snprintf(buf, sizeof buf, "%u", static_cast<unsigned>(getpid()));
    // The text goes out with its terminating NUL: readers of this file expect it.
    if (write(locked, buf, static_cast<size_t>(len) + 1) < 0)
        return -1;
    return 0;
}

void sigroutine(int signo)
{
    if (signo == SIGTERM)
        g_message("receive SIGTERM signal\n");
}

namespace {
gboolean on_sigterm(gpointer /*user_data*/)
{
    sigroutine(SIGTERM);
    return G_SOURCE_CONTINUE;
}
} // namespace

void on_name_acquired(GDBusConnection *connection, const gchar * /*name*/, gpointer /*user_data*/)
{
    gobject_owner<GatewayDeviceService> sk(gateway_device_service_skeleton_new());
    connect_device_service_handlers(sk.get());
    g_dbus_interface_skeleton_export(G_DBUS_INTERFACE_SKELETON(sk.get()), connection,
                                     SERVICE_PATH, nullptr);
    skeleton.store(sk.release()); // before the reading thread that emits on it
    pthread_t tid;
    if (pthread_create(&tid, nullptr, thread_start, nullptr) == -1) {
        g_print("pthread_create fail,exit -1\n");
        exit(-1);
    }
    pthread_detach(tid);
}

void on_name_lost(GDBusConnection * /*connection*/, const gchar *name, gpointer /*user_data*/)
{
    g_print("Lost the name %s on the session bus,exit -1\n", name);
    // Released here: exit does not unwind this frame.
    gobject_owner<GatewayDeviceService>{skeleton.exchange(nullptr)};
    exit(-1);
}

void use_plain_malloc(char **argv)
{
    static constexpr char NO_TCACHE[] = "glibc.malloc.tcache_count=0";
    const char *slice = getenv("G_SLICE");
    const char *tunables = getenv("GLIBC_TUNABLES");
    const bool tcache_off = tunables != nullptr && strstr(tunables, NO_TCACHE) != nullptr;
    if (slice != nullptr && strcmp(slice, "always-malloc") == 0 && tcache_off)
        return;
    setenv("G_SLICE", "always-malloc", 1);
    if (!tcache_off) {
        const std::string all = tunables != nullptr && *tunables != '\0'
                                    ? std::string(tunables) + ":" + NO_TCACHE
                                    : std::string(NO_TCACHE);
        setenv("GLIBC_TUNABLES", all.c_str(), 1);
    }
    // The program is started again by its own path: the kernel names the
    // process after the file executed, and "exe" would take the service's
    // name in ps, pgrep and the journal. /proc/self/exe itself is the way
    // left when the file was replaced since it started.
    char path[PATH_MAX];
    const ssize_t n = readlink("/proc/self/exe", path, sizeof path - 1);
    if (n > 0) {
        path[n] = '\0';
        execv(path, argv);
    }
    execv("/proc/self/exe", argv);
    // Without /proc the service runs on with GLib's slice magazines.
}

namespace {
// A bulk configuration call's message is parsed, in the bus library's
// worker thread, into hundreds of thousands of small temporaries. Each
// thread keeps its own malloc arena, so those temporaries fill the worker's
// heap and nothing long-lived of the other threads lands among or above
// them (the node table lives apart altogether, see node_memory.h); a fixed
// mmap threshold keeps large message buffers mapped and unmapped whole
// instead of letting glibc raise it and keep them on the heap.
void tune_allocator()
{
    mallopt(M_MMAP_THRESHOLD, 128 * 1024);
    mallopt(M_TRIM_THRESHOLD, 128 * 1024);
}
} // namespace

int service_main(const service_paths &paths, void (*after_init_driver)())
{
    tune_allocator();
    // Log lines must reach a pipe or the journal as they happen.
    setvbuf(stdout, nullptr, _IOLBF, 0);
    set_runtime_paths(paths);
    log_init();
    if (daemonize(runtime_paths().pid_file.c_str()) != 0) {
        g_critical("the service process is started\n");
        log_deinit();
        return -1;
    }
    g_message("start service, ppid/pid:[%u/%u]\n", static_cast<unsigned>(getppid()),
              static_cast<unsigned>(getpid()));
    // SIGTERM only logs, and the service keeps running. The line is printed
    // from the main loop rather than inside the signal handler, where neither
    // the log handler nor stdio may be used.
    g_unix_signal_add(SIGTERM, on_sigterm, nullptr);

    init_driver();
    if (after_init_driver != nullptr)
        after_init_driver();
    init_database();

    g_bus_own_name(G_BUS_TYPE_SESSION, SERVICE_NAME, G_BUS_NAME_OWNER_FLAGS_NONE, nullptr,
                   on_name_acquired, on_name_lost, nullptr, nullptr);
    g_bus_watch_name(G_BUS_TYPE_SESSION, SYSTEM_SERVICE_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE,
                     device_on_systemService_appeared, device_on_systemService_vanished, nullptr,
                     nullptr);
    g_bus_watch_name(G_BUS_TYPE_SESSION, ZORV_SERVICE_NAME, G_BUS_NAME_WATCHER_FLAGS_NONE,
                     device_on_zorvService_appeared, device_on_zorvService_vanished, nullptr,
                     nullptr);

    const c_owner<GMainLoop, g_main_loop_unref> loop(g_main_loop_new(nullptr, FALSE));
    g_main_loop_run(loop.get());

    deinit_driver();
    g_message("stop service, ppid/pid:[%u/%u]\n", static_cast<unsigned>(getppid()),
              static_cast<unsigned>(getpid()));
    log_deinit();
    return 0;
}
