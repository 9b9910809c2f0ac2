// Owners for the C handles the daemon and its tools acquire. A function that
// acquires a handle holds it here until it returns it or hands it on with
// release(); every deleter accepts null. The SQLite, libmodbus and Snap7
// deleters are defined by the library that links that C library, so this
// header needs only GLib.
#pragma once

#include <gio/gio.h>
#include <glib.h>
#include <unistd.h>

#include <cstdint>
#include <memory>
#include <utility>

struct sqlite3;
struct sqlite3_stmt;
struct _modbus;

template <auto Free>
struct c_deleter {
    template <typename T>
    void operator()(T *p) const noexcept
    {
        if (p != nullptr)
            Free(p);
    }
};

// Any pointer handle with the one function that frees it.
template <typename T, auto Free>
using c_owner = std::unique_ptr<T, c_deleter<Free>>;

// Lets a C function fill an owner through its out parameter:
// `f(..., out_ptr(owner))`; the owner takes the pointer at the end of the call's
// full expression, whatever the function answered.
template <typename Owner>
class out_param {
public:
    explicit out_param(Owner &owner) : owner_(owner) {}
    ~out_param() { owner_.reset(raw_); }
    out_param(const out_param &) = delete;
    out_param &operator=(const out_param &) = delete;
    operator typename Owner::pointer *() { return &raw_; }

private:
    Owner &owner_;
    typename Owner::pointer raw_ = nullptr;
};
template <typename Owner>
out_param<Owner> out_ptr(Owner &owner)
{
    return out_param<Owner>(owner);
}

// GObject and its descendants (bus connections, proxies, skeletons, parsers).
struct gobject_deleter {
    void operator()(gpointer p) const noexcept
    {
        if (p != nullptr)
            g_object_unref(p);
    }
};
template <typename T>
using gobject_owner = std::unique_ptr<T, gobject_deleter>;

using gvariant_owner = c_owner<GVariant, g_variant_unref>;
using gerror_owner = c_owner<GError, g_error_free>;
using gchar_owner = c_owner<gchar, g_free>;

// A builder on the stack: cleared on the way out unless end() took its value.
class gvariant_builder {
public:
    explicit gvariant_builder(const GVariantType *type) { g_variant_builder_init(&builder_, type); }
    ~gvariant_builder()
    {
        if (!ended_)
            g_variant_builder_clear(&builder_);
    }
    gvariant_builder(const gvariant_builder &) = delete;
    gvariant_builder &operator=(const gvariant_builder &) = delete;

    GVariantBuilder *get() { return &builder_; }
    // The built value, floating as g_variant_builder_end gives it.
    GVariant *end()
    {
        ended_ = true;
        return g_variant_builder_end(&builder_);
    }

private:
    GVariantBuilder builder_;
    bool ended_ = false;
};

// A file descriptor; -1 is empty.
class fd_owner {
public:
    fd_owner() = default;
    explicit fd_owner(int fd) : fd_(fd) {}
    ~fd_owner() { reset(); }
    fd_owner(fd_owner &&other) noexcept : fd_(other.release()) {}
    fd_owner &operator=(fd_owner &&other) noexcept
    {
        reset(other.release());
        return *this;
    }
    fd_owner(const fd_owner &) = delete;
    fd_owner &operator=(const fd_owner &) = delete;

    int get() const { return fd_; }
    int release() { return std::exchange(fd_, -1); }
    void reset(int fd = -1)
    {
        if (fd_ >= 0)
            close(fd_);
        fd_ = fd;
    }

private:
    int fd_ = -1;
};

// SQLite: defined in the storage library.
struct sqlite_deleter {
    void operator()(sqlite3 *db) const noexcept;
    void operator()(sqlite3_stmt *st) const noexcept;
};
using sqlite_owner = std::unique_ptr<sqlite3, sqlite_deleter>;
using sqlite_stmt_owner = std::unique_ptr<sqlite3_stmt, sqlite_deleter>;

// libmodbus (closes, then frees) and a Snap7 client: defined in the drivers library.
struct modbus_deleter {
    void operator()(_modbus *ctx) const noexcept;
};
using modbus_owner = std::unique_ptr<_modbus, modbus_deleter>;

class s7_client_owner {
public:
    s7_client_owner() = default;
    explicit s7_client_owner(uintptr_t client) : client_(client) {}
    ~s7_client_owner() { reset(); }
    s7_client_owner(const s7_client_owner &) = delete;
    s7_client_owner &operator=(const s7_client_owner &) = delete;

    uintptr_t get() const { return client_; }
    uintptr_t release() { return std::exchange(client_, 0); }
    // Destroys the client held (which also disconnects it).
    void reset(uintptr_t client = 0);

private:
    uintptr_t client_ = 0;
};
