// Siemens S7-200 over PPI (RS-485): the read job, the PLC's short
// acknowledgement, the request for the answer, and the answer.
#include <fcntl.h>
#include <termios.h>
#include <unistd.h>

#include <cerrno>
#include <cstdio>
#include <cstring>

#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"
#include "codec/ppi_codec.h"
#include "device/driver/serial/serial_wait.h"
#include "device/driver/uart.h"
#include "device/plc/plc_serial.h"
#include "base/runtime.h"

namespace {

struct s7_200_priv {
    int fd;
    int is_open; // the cell starts zeroed: fd 0 is not ours until open says so
};

// Both waits of one exchange share this budget: the second one only gets
// what the first left over.
constexpr int64_t EXCHANGE_BUDGET_MS = 180;
constexpr size_t ANSWER_BUF_SIZE = 512;

} // namespace

DRIVER_LIFECYCLE(siemens_s7_200, s7_200_priv, "siemens_s7_200_drv.drv.priv != NULL\n",
                 "siemens_s7_200_drv.drv.priv = NULL\n")

namespace {

s7_200_priv *drvdata(const plc_device *dev)
{
    return static_cast<s7_200_priv *>(__get_drvdata(dev));
}

// Reads what the line has into buf[*got..]; for an SD2 frame whose length
// byte has arrived, goes on (within the budget) until the whole frame is
// there, so that an answer delivered in pieces is not cut short.
void read_answer(int fd, uint8_t *buf, size_t *got, int64_t deadline)
{
    for (;;) {
        const ssize_t n = read(fd, buf + *got, ANSWER_BUF_SIZE - *got);
        if (n > 0)
            *got += static_cast<size_t>(n);
        if (*got < 2 || buf[0] != PPI_SD2)
            return;
        const size_t frame_len = static_cast<size_t>(buf[1]) + 6;
        if (*got >= frame_len || *got >= ANSWER_BUF_SIZE)
            return;
        if (serial_wait_readable(fd, deadline) <= 0)
            return;
    }
}

// 0 readable; -1 wait error; -2 nothing came in time (`timeout_text` printed).
int wait_answer(int fd, int64_t deadline, const char *timeout_text)
{
    const int ready = serial_wait_readable(fd, deadline);
    if (ready < 0) {
        perror("select");
        return -1;
    }
    if (ready == 0) {
        g_print("%s", timeout_text);
        return -2;
    }
    return 0;
}

// 0, or -1 select error, -2 no answer in time, -3 refused.
int read_data(int fd, const uint8_t *frame, uint8_t *buf, size_t *got)
{
    const int64_t deadline = serial_now_ms() + EXCHANGE_BUDGET_MS;
    *got = 0;
    if (write(fd, frame, PPI_REQUEST_LEN) < 0) {
        // Not acted upon: the wait below reports the missing answer.
    }
    int rc = wait_answer(fd, deadline, "timeout1\n");
    if (rc != 0)
        return rc;
    memset(buf, 0, ANSWER_BUF_SIZE);
    if (read(fd, buf, ANSWER_BUF_SIZE) < 0) {
        // buf[0] stays 0: reported as a refusal below.
    }
    if (buf[0] != PPI_SHORT_ACK) {
        g_print("cmd error\n");
        return -3;
    }
    if (write(fd, PPI_confirm, sizeof PPI_confirm) < 0) {
        // As above: the second wait reports it.
    }
    rc = wait_answer(fd, deadline, "timeout2\n");
    if (rc != 0)
        return rc;
    memset(buf, 0, ANSWER_BUF_SIZE);
    read_answer(fd, buf, got, deadline);
    return 0;
}

int identify_and_read(int fd, uint8_t station, const char *addr, uint32_t data_type, char *value)
{
    uint8_t frame[PPI_REQUEST_LEN] = {};
    int item_code = PPI_ITEM_NONE;
    if (getReadCommandFrame(addr, data_type, station, frame, &item_code) != 0) {
        snprintf(value, NODE_VALUE_SIZE, "address error");
        return -1;
    }
    uint8_t buf[ANSWER_BUF_SIZE];
    size_t got = 0;
    // The answer's frame, check byte and return code are not looked at;
    // only an answer too short to hold the data fails.
    if (read_data(fd, frame, buf, &got) != 0 ||
        PPI_decode_value(buf, got, item_code, data_type, value, NODE_VALUE_SIZE) != 0) {
        snprintf(value, NODE_VALUE_SIZE, "read error");
        return -1;
    }
    return 0;
}

} // namespace

static int siemens_s7_200_read(plc_device *dev, const char *addr, uint32_t data_type, char *value)
{
    s7_200_priv *priv = drvdata(dev);
    const serial_device *sDev = as_serial(dev);
    if (priv == nullptr || sDev == nullptr || dev->dev_comm_type != DEV_COMM_SERIAL) {
        g_print("<%s>: Failed to get drvdata\n", __func__);
        return -1;
    }
    if (identify_and_read(priv->is_open != 0 ? priv->fd : -1, static_cast<uint8_t>(sDev->station_num), addr,
                          data_type, value) != 0) {
        snprintf(value, NODE_VALUE_SIZE, "read error");
        g_print("%s", value);
        return -1;
    }
    return 0;
}

static int siemens_s7_200_open(plc_device *dev)
{
    // A record of the other kind can be bound by maker and model alone; it
    // has no line settings to read.
    const serial_device *sDev = as_serial(dev);
    if (sDev == nullptr || dev->dev_comm_type != DEV_COMM_SERIAL) {
        g_print("serial_number err\n");
        return -1;
    }
    const char *path = serial_port_path(sDev->serial_number);
    if (path == nullptr) {
        g_print("serial_number err\n");
        return -1;
    }
    const int fd = open(path, O_RDWR | O_NOCTTY | O_NONBLOCK);
    if (fd < 0) {
        g_print("open error\n");
        return -1;
    }
    s7_200_priv *priv = drvdata(dev);
    if (priv == nullptr) {
        g_print("<%s>: Failed to get drvdata\n", __func__);
        close(fd);
        return -1;
    }
    uart_config(fd, static_cast<int>(sDev->baudrate), uart_parity_char(sDev->parity_bit),
                static_cast<int>(sDev->data_bit), static_cast<int>(sDev->stop_bit));
    tcflush(fd, TCIOFLUSH);
    // The port of the last device opened without a release in between.
    if (priv->is_open != 0)
        close(priv->fd);
    priv->fd = fd;
    priv->is_open = 1;
    return 0;
}

static int siemens_s7_200_release(plc_device *dev)
{
    s7_200_priv *priv = drvdata(dev);
    if (priv == nullptr) {
        g_print("<%s>: Failed to get drvdata\n", __func__);
        return -1;
    }
    if (priv->is_open != 0)
        close(priv->fd);
    priv->is_open = 0;
    return 0;
}

static int siemens_s7_200_write(plc_device * /*dev*/, const char * /*addr*/, uint32_t /*data_type*/,
                                const char * /*value*/)
{
    return driver_log_only(__func__);
}

static int siemens_s7_200_update_params(plc_device * /*dev*/)
{
    return driver_log_only(__func__);
}

static int siemens_s7_200_save_config(plc_device * /*dev*/)
{
    return driver_log_only(__func__);
}

driver siemens_s7_200_drv = {"siemens_s7_200", 0, 2, 1, nullptr, siemens_s7_200_probe, siemens_s7_200_remove,
    siemens_s7_200_read, siemens_s7_200_write, siemens_s7_200_open, siemens_s7_200_release,
    siemens_s7_200_update_params, siemens_s7_200_save_config};
