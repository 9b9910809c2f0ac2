// Delta DVP-32EC over Modbus ASCII: one coil, input or register per request.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <algorithm>
#include <cstdio>
#include <cstring>

#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"
#include "codec/dvp_codec.h"
#include "device/driver/serial/serial_wait.h"
#include "device/driver/uart.h"
#include "device/plc/plc_serial.h"
#include "base/runtime.h"

namespace {

struct dvp_priv {
    // The descriptor open stored; closing the port (release, a failed
    // write) leaves the number as it was.
    int fd;
    // Whether fd is still this driver's port. A closed number may already
    // belong to another file of the daemon, so it is never used again:
    // exchanges on a closed port go to -1 and fail at their write.
    bool open;
};

constexpr int64_t CHUNK_WAIT_MS = 150; // renewed for every chunk
constexpr size_t ANSWER_SIZE = 40;

// One exchange: 0 done; 1 write failed; 2 wait failed; 3 time-out; 4 read
// failed; 13-15 the answer did not decode.
int get_point_value(dvp_priv &port, const char *address_hex, const char *code, uint32_t *value,
                    uint32_t station)
{
    const int fd = port.open ? port.fd : -1;
    const std::string frame = dvp_request(station, code, address_hex);
    g_print("%s", frame.c_str());
    // An answer that came after its time-out is still on the line: taken
    // for this request it would give another point's value.
    tcflush(fd, TCIFLUSH);
    if (write(fd, frame.data(), frame.size()) <= 0) {
        perror("write");
        g_print("close uart\n");
        uart_close(fd);
        port.open = false;
        return 1;
    }
    char answer[ANSWER_SIZE + 1] = {};
    size_t len = 0;
    for (;;) {
        const int r = serial_wait_readable(fd, serial_now_ms() + CHUNK_WAIT_MS);
        if (r < 0) {
            g_print("select err\n");
            return 2;
        }
        if (r == 0) {
            g_print("select timeout\n");
            return 3;
        }
        char chunk[ANSWER_SIZE] = {};
        const ssize_t n = read(fd, chunk, sizeof chunk);
        if (n <= 0)
            return 4;
        // An answer longer than any one-point answer is cut, and fails to decode.
        const size_t take = std::min(static_cast<size_t>(n), ANSWER_SIZE - len);
        memcpy(answer + len, chunk, take);
        len += take;
        if (chunk[n - 1] == '\n' || len == ANSWER_SIZE)
            break;
    }
    g_print("%s", answer);
    char exception[3] = {};
    const int d = analysis_delta(answer, len, value, exception);
    if (d == -3)
        g_print("delta respond err = %s\n", exception);
    if (d != 0)
        return d + 16;
    if (strcmp(code, "01") == 0 || strcmp(code, "02") == 0)
        *value &= 1;
    return 0;
}

} // namespace

extern driver delta_dvp32ec_drv;

static int delta_dvp32ec_probe()
{
    const bool fresh = delta_dvp32ec_drv.priv == nullptr;
    const int r = driver_common_probe(delta_dvp32ec_drv, __func__, sizeof(dvp_priv),
                                      "delta_dvp32ec_drv.drv.priv != NULL\n");
    if (fresh && delta_dvp32ec_drv.priv != nullptr)
        *static_cast<dvp_priv *>(delta_dvp32ec_drv.priv) = {-1, false};
    return r;
}

static int delta_dvp32ec_remove()
{
    return driver_common_remove(delta_dvp32ec_drv, __func__, "delta_dvp32ec_drv.drv.priv = NULL\n");
}

int delta_dvp32ec_init()
{
    return driver_common_init(delta_dvp32ec_drv, __func__);
}

int delta_dvp32ec_deinit()
{
    return driver_common_deinit(delta_dvp32ec_drv, __func__);
}

static dvp_priv *dvp_data(const char *func)
{
    auto *priv = static_cast<dvp_priv *>(delta_dvp32ec_drv.priv);
    if (priv == nullptr)
        g_print("<%s>: Failed to get drvdata\n", func);
    return priv;
}

static int delta_dvp32ec_open(plc_device *dev)
{
    g_print("<%s> called\n", __func__);
    dvp_priv *priv = dvp_data(__func__);
    if (priv == nullptr)
        return -1;
    const serial_device *sd = as_serial(dev);
    const char *path = sd != nullptr && dev->dev_comm_type == DEV_COMM_SERIAL
                           ? serial_port_path(sd->serial_number)
                           : nullptr;
    if (path == nullptr) {
        g_print("serial_number err\n");
        return -1;
    }
    if (priv->open)
        close(priv->fd); // a port left open by an earlier open
    priv->fd = open(path, O_RDWR | O_NOCTTY | O_NONBLOCK);
    priv->open = priv->fd >= 0;
    if (!priv->open) {
        g_print("open error : %s\n", path);
        return -1;
    }
    g_print("uart open success : %s\n", path);
    uart_config(priv->fd, static_cast<int>(sd->baudrate), uart_parity_char(sd->parity_bit),
                static_cast<int>(sd->data_bit), static_cast<int>(sd->stop_bit));
    tcflush(priv->fd, TCIOFLUSH);
    return 0;
}

static int delta_dvp32ec_release(plc_device *)
{
    g_print("<%s> called\n", __func__);
    dvp_priv *priv = dvp_data(__func__);
    if (priv == nullptr)
        return -1;
    if (priv->open)
        close(priv->fd);
    priv->open = false;
    return 0;
}

// node_addr is the reading loop's own copy of the node's address: it is
// upper-cased in place, so the published address is the one read ("d100"
// goes out as "D100").
static int delta_dvp32ec_read(plc_device *dev, const char *node_addr, uint32_t data_type,
                              char *value)
{
    g_print("<%s> called\n", __func__);
    dvp_priv *priv = dvp_data(__func__);
    if (priv == nullptr)
        return -1;
    char *address = const_cast<char *>(node_addr);
    char code[3];
    if (get_code(code, address, data_type) != 0) {
        g_print("get code err\n");
        return -1;
    }
    char letter = 0;
    char hex[5];
    if (mapping(address, &letter, hex) != 0) {
        // Unmasked, the start address takes more than four digits (D28672
        // gives 10000), which leaves the LRC an odd number of digits to
        // sum: the request cannot be formed and is not sent.
        g_print("get_LRC : input_len%%2 != 0\n");
        return -1;
    }
    uint32_t v = 0;
    const serial_device *sd = as_serial(dev);
    if (sd == nullptr || get_point_value(*priv, hex, code, &v, sd->station_num) != 0)
        return -1;
    snprintf(value, NODE_VALUE_SIZE, "%d", static_cast<int>(v));
    g_print("<%s> = %s\n", address, value);
    return 0;
}

DRIVER_LOG_ONLY_OPS(delta_dvp32ec)

driver delta_dvp32ec_drv = {"delta_dvp32ec",         0,
                            DEV_MFG_DELTA,           DEV_TYPE_DVP_32EC,
                            nullptr,                 delta_dvp32ec_probe,
                            delta_dvp32ec_remove,    delta_dvp32ec_read,
                            delta_dvp32ec_write,     delta_dvp32ec_open,
                            delta_dvp32ec_release,   delta_dvp32ec_update_params,
                            delta_dvp32ec_save_config};
