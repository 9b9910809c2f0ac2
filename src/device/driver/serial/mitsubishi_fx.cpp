// Mitsubishi FX-1N and FX-3U over the programming port: one ASCII device
// read per node, framed by STX/ETX with a sum check. The two models share
// this driver; the FX-3U adds Float.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cstdio>

#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"
#include "codec/fx_codec.h"
#include "device/driver/serial/serial_wait.h"
#include "device/driver/uart.h"
#include "device/plc/plc_serial.h"
#include "base/runtime.h"

namespace {

struct fx_priv {
    int fd;
    int open; // fd is ours only while this is set: the block starts zeroed
};

constexpr int64_t ANSWER_WAIT_MS = 100;
constexpr size_t ANSWER_SIZE = 512;

int fx_open(driver &drv, const char *func, plc_device *dev)
{
    const serial_device *sd = as_serial(dev);
    const char *path = sd != nullptr && dev->dev_comm_type == DEV_COMM_SERIAL
                           ? serial_port_path(sd->serial_number)
                           : nullptr;
    if (path == nullptr) {
        g_print("serial_number err\n");
        return -1;
    }
    auto *priv = static_cast<fx_priv *>(drv.priv);
    if (priv == nullptr) {
        g_print("<%s>: Failed to get drvdata\n", func);
        return -1;
    }
    const int fd = open(path, O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        g_print("open error\n");
        return -1;
    }
    uart_config(fd, static_cast<int>(sd->baudrate), uart_parity_char(sd->parity_bit),
                static_cast<int>(sd->data_bit), static_cast<int>(sd->stop_bit));
    tcflush(fd, TCIOFLUSH);
    if (priv->open != 0)
        close(priv->fd); // a port left open by an earlier open
    priv->fd = fd;
    priv->open = 1;
    return 0;
}

int fx_release(driver &drv, const char *func)
{
    auto *priv = static_cast<fx_priv *>(drv.priv);
    if (priv == nullptr) {
        g_print("<%s>: Failed to get drvdata\n", func);
        return -1;
    }
    if (priv->open != 0)
        close(priv->fd);
    priv->open = 0;
    return 0;
}

// Sends the request and decodes the answer. 0, -1 (error, NAK) or -2 (no answer).
int read_data(int fd, const uint8_t *frame, uint32_t data_type, bool float_ok, uint8_t bit,
              char *value)
{
    // Bytes still on the line belong to an earlier exchange (an answer that
    // came too late): taken for this one they would give another device's value.
    tcflush(fd, TCIFLUSH);
    const int64_t deadline = serial_now_ms() + ANSWER_WAIT_MS;
    if (write(fd, frame, FX_REQUEST_SIZE) < 0) {
        // Nothing more to do: the wait below ends in a time-out.
    }
    const int r = serial_wait_readable(fd, deadline);
    if (r < 0) {
        perror("select");
        return -1;
    }
    if (r == 0) {
        g_print("timeout1\n");
        return -2;
    }
    uint8_t answer[ANSWER_SIZE] = {};
    const ssize_t n = read(fd, answer, sizeof answer);
    if (n <= 0)
        return -1;
    if (answer[0] == FX_NAK) {
        g_print("cmd error\n");
        return -1;
    }
    // A second read at once picks up what came after the first; it is
    // joined to it. An answer still short of its ETX and sum (a converter
    // that delivers in pieces) is waited for within the same 100 ms.
    size_t len = static_cast<size_t>(n);
    const ssize_t more = read(fd, answer + len, sizeof answer - len);
    if (more > 0)
        len += static_cast<size_t>(more);
    while (answer[0] == FX_STX && !fx_answer_complete(answer, len) && len < sizeof answer &&
           serial_wait_readable(fd, deadline) > 0) {
        const ssize_t rest = read(fd, answer + len, sizeof answer - len);
        if (rest <= 0)
            break;
        len += static_cast<size_t>(rest);
    }
    // Data follow an STX; anything else is not an answer to this request.
    if (answer[0] != FX_STX)
        return -1;
    return fx_decode_answer(answer, len, data_type, float_ok, bit, value, NODE_VALUE_SIZE);
}

int fx_read(driver &drv, const char *func, bool float_ok, const char *addr, uint32_t data_type,
            char *value)
{
    auto *priv = static_cast<fx_priv *>(drv.priv);
    if (priv == nullptr) {
        g_print("<%s>: Failed to get drvdata\n", func);
        return -1;
    }
    uint8_t frame[FX_REQUEST_SIZE];
    uint8_t bit = 0;
    if (priv->open == 0 || fx_build_request(addr, frame, &bit) != 0 ||
        read_data(priv->fd, frame, data_type, float_ok, bit, value) != 0) {
        snprintf(value, NODE_VALUE_SIZE, "%s", "read error");
        return -1;
    }
    return 0;
}

} // namespace

#define FX_DRIVER(name, type, float_ok)                                                        \
    DRIVER_LIFECYCLE(name, fx_priv, #name "_drv.drv.priv != NULL\n",                            \
                     #name "_drv.drv.priv = NULL\n")                                             \
    namespace {                                                                                \
    int name##_open(plc_device *dev) { return fx_open(name##_drv, __func__, dev); }            \
    int name##_release(plc_device *) { return fx_release(name##_drv, __func__); }              \
    int name##_read(plc_device *, const char *addr, uint32_t data_type, char *value)           \
    {                                                                                          \
        return fx_read(name##_drv, __func__, float_ok, addr, data_type, value);                \
    }                                                                                          \
    }                                                                                          \
    DRIVER_LOG_ONLY_OPS(name)                                                                  \
    driver name##_drv = {#name,          0,                       DEV_MFG_MITSUBISHI,          \
                         type,           nullptr,                 name##_probe,                \
                         name##_remove,  name##_read,             name##_write,                \
                         name##_open,    name##_release,          name##_update_params,        \
                         name##_save_config};

FX_DRIVER(mitsubishi_fx1n, DEV_TYPE_FX_1N, false)
FX_DRIVER(mitsubishi_fx3u, DEV_TYPE_FX_3U, true)
