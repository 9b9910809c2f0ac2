// Mitsubishi Q series over a serial line: one point per request, QnA 4C
// binary format 5. (The driver's name is spelt "mitusbishi" everywhere: the
// gateway's configuration tools know it by that name.)
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>

#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"
#include "codec/qna_4c_codec.h"
#include "device/driver/serial/serial_wait.h"
#include "device/driver/uart.h"
#include "device/plc/plc_serial.h"
#include "base/runtime.h"

#define QS_LOG(fmt, ...) g_critical("%s:%d " fmt, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

namespace {

struct qserial_priv {
    int fd; // -1 while no port is open
};

constexpr uint32_t RESPONSE_BUF_SIZE = 100;
constexpr int64_t RESPONSE_WAIT_MS = 1000; // renewed for every wait

qserial_priv *drvdata(const plc_device *dev)
{
    return static_cast<qserial_priv *>(__get_drvdata(dev));
}

} // namespace

extern driver mitusbishi_Qserial_drv;

static int mitusbishi_Qserial_probe()
{
    g_print("%s called\n", __func__);
    if (mitusbishi_Qserial_drv.priv != nullptr) {
        g_critical("%s", DRIVER_WHERE "mitusbishi_Qserial_drv.drv.priv != NULL\n");
        return 0;
    }
    auto *priv = g_try_new0(qserial_priv, 1);
    if (priv == nullptr) {
        QS_LOG("drvdata = NULL\n");
        return -1;
    }
    priv->fd = -1;
    mitusbishi_Qserial_drv.priv = priv;
    return 0;
}

static int mitusbishi_Qserial_remove()
{
    g_print("%s called\n", __func__);
    if (mitusbishi_Qserial_drv.priv == nullptr) {
        g_critical("%s", DRIVER_WHERE "mitusbishi_Qserial_drv.drv.priv = NULL\n");
        return 0;
    }
    g_free(mitusbishi_Qserial_drv.priv);
    mitusbishi_Qserial_drv.priv = nullptr;
    return 0;
}

int mitusbishi_Qserial_init()
{
    return driver_common_init(mitusbishi_Qserial_drv, __func__);
}

int mitusbishi_Qserial_deinit()
{
    return driver_common_deinit(mitusbishi_Qserial_drv, __func__);
}

static int mitusbishi_Qserial_open(plc_device *dev)
{
    qserial_priv *priv = drvdata(dev);
    if (priv == nullptr) {
        QS_LOG("drvdata = NULL\n");
        return -1;
    }
    // A record of the other kind can be bound by maker and model alone; it
    // has no line settings to read.
    const serial_device *sDev = as_serial(dev);
    if (sDev == nullptr || dev->dev_comm_type != DEV_COMM_SERIAL) {
        QS_LOG("dev_comm_type = %u\n", dev->dev_comm_type);
        return -1;
    }
    char parity = 0;
    switch (sDev->parity_bit) {
    case 0: parity = 'n'; break;
    case 1: parity = 'e'; break;
    case 2: parity = 'o'; break;
    default:
        QS_LOG("sDev->parity_bit = %u\n", sDev->parity_bit);
        return -1;
    }
    const char *path = serial_port_path(sDev->serial_number);
    if (path == nullptr) {
        QS_LOG("serial_number = %u\n", sDev->serial_number);
        return -1;
    }
    // The port of the last device opened without a release in between.
    if (priv->fd >= 0)
        close(priv->fd);
    priv->fd = open(path, O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (priv->fd < 0) {
        QS_LOG("open %s : %s\n", path, g_strerror(errno));
        return -1;
    }
    uart_config(priv->fd, static_cast<int>(sDev->baudrate), parity, static_cast<int>(sDev->data_bit),
                static_cast<int>(sDev->stop_bit));
    tcflush(priv->fd, TCIOFLUSH);
    return 0;
}

static int mitusbishi_Qserial_release(plc_device *dev)
{
    qserial_priv *priv = drvdata(dev);
    if (priv == nullptr) {
        QS_LOG("drvdata = NULL\n");
        return -1;
    }
    if (priv->fd >= 0)
        close(priv->fd);
    priv->fd = -1;
    return 0;
}

static int mitusbishi_Qserial_read(plc_device *dev, const char *addr, uint32_t data_type, char *value)
{
    qserial_priv *priv = drvdata(dev);
    if (priv == nullptr) {
        QS_LOG("drvdata = NULL\n");
        return -1;
    }
    // Words are read as one register and shown unsigned even for S16; U16
    // is refused. Configuration tools rely on exactly these two types.
    uint16_t sub_command = 0;
    if (data_type == NODE_TYPE_BIT) {
        sub_command = SUB_COMMAND_BIT;
    } else if (data_type == NODE_TYPE_S16) {
        sub_command = SUB_COMMAND_WORD;
    } else {
        QS_LOG("dt = %u\n", data_type);
        return -1;
    }
    const int msg_len = build_QnA_4C_request_msg_of_format_5(sub_command, addr);
    if (msg_len < 0)
        return -1;
    const ssize_t rc = write(priv->fd, QnA_4C_request_msg(), static_cast<size_t>(msg_len));
    if (rc == -1) {
        QS_LOG("write : %s\n", g_strerror(errno));
        return -1;
    }
    if (rc < msg_len) {
        QS_LOG("write : rc:%d != msg_len:%d : %s\n", static_cast<int>(rc), msg_len, g_strerror(errno));
        return -1;
    }

    uint8_t R[RESPONSE_BUF_SIZE] = {};
    uint32_t offset = 0;
    uint32_t response_min_len = 0;
    uint32_t response_max_len = 0; // 0 while the length is unknown
    int64_t deadline = serial_now_ms() + RESPONSE_WAIT_MS;
    for (;;) {
        const int ready = serial_wait_readable(priv->fd, deadline);
        if (ready < 0) {
            QS_LOG("select : %s\n", g_strerror(errno));
            return -1;
        }
        if (ready == 0) {
            QS_LOG("respond timeout \n");
            return -1;
        }
        const ssize_t n = read(priv->fd, R + offset, RESPONSE_BUF_SIZE - offset);
        if (n < 0 && (errno == EAGAIN || errno == EINTR))
            continue;
        if (n < 0) {
            QS_LOG("read : %s\n", g_strerror(errno));
            return -1;
        }
        if (n == 0) {
            // The buffer is full (or the line gave nothing): no answer can
            // complete any more, so let the wait run out.
            serial_sleep_until(deadline);
            continue;
        }
        offset += static_cast<uint32_t>(n);
        deadline = serial_now_ms() + RESPONSE_WAIT_MS;
        if (response_max_len == 0) {
            if (offset < 4)
                continue;
            if (R[0] != QnA_4C_DLE) {
                // Nothing is discarded: the answer cannot be found any more
                // and the time-out ends the read.
                QS_LOG("R[0] != DLE\n");
                continue;
            }
            const uint32_t data_num = R[2] | (static_cast<uint32_t>(R[3]) << 8);
            // DLE STX, length, data, DLE ETX, two sum characters; up to two
            // more for doubled DLE bytes.
            response_min_len = data_num + 8;
            response_max_len = response_min_len + 2;
        }
        if (offset < response_min_len)
            continue;
        if (offset > response_max_len) {
            QS_LOG("offset:%u > response_max_len:%u\n", offset, response_max_len);
            continue;
        }
        if (R[offset - 3] != QnA_4C_ETX) {
            QS_LOG("R[-3]:%xH != ETX\n", R[offset - 3]);
            continue;
        }
        break;
    }
    uint16_t respond_code = 0;
    if (analysis_QnA_4C_respond_msg_of_format_5(R, offset, &respond_code, value, NODE_VALUE_SIZE) < 0)
        return -1;
    return respond_code != 0 ? -1 : 0;
}

static int mitusbishi_Qserial_write(plc_device * /*dev*/, const char * /*addr*/, uint32_t /*data_type*/,
                                    const char * /*value*/)
{
    g_print("%s called\n", __func__);
    return 0;
}

static int mitusbishi_Qserial_update_params(plc_device * /*dev*/)
{
    g_print("%s called\n", __func__);
    return 0;
}

static int mitusbishi_Qserial_save_config(plc_device * /*dev*/)
{
    g_print("%s called\n", __func__);
    return 0;
}

driver mitusbishi_Qserial_drv = {"mitusbishi_Qserial", 0, 1, 105, nullptr,
    mitusbishi_Qserial_probe, mitusbishi_Qserial_remove, mitusbishi_Qserial_read,
    mitusbishi_Qserial_write, mitusbishi_Qserial_open, mitusbishi_Qserial_release,
    mitusbishi_Qserial_update_params, mitusbishi_Qserial_save_config};
