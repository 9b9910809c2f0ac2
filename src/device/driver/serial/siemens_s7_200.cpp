// Siemens S7-200 over PPI (RS-485): the read job, the PLC's short
// acknowledgement, the request for the answer, and the answer.
//
// This file is the one to copy for a new driver: a private block, open,
// release and read, between DRIVER_LIFECYCLE and DRIVER_DESCRIPTOR; the
// frames belong in a codec of their own under src/codec/.
#include <unistd.h>

#include <cstdio>

#include "codec/ppi_codec.h"
#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"
#include "device/driver/exchange.h"
#include "device/driver/serial/serial_port.h"
#include "device/plc/plc_serial.h"

namespace {

// Both waits of one exchange share this budget: the second one only gets
// what the first left over.
constexpr int64_t EXCHANGE_BUDGET_MS = 180;
constexpr size_t ANSWER_BUF_SIZE = 512;

// Writes `frame`, then reads what comes back until `complete`. 0; -1 wait
// error; -2 nothing came in time (`timeout_text` printed).
template <typename Complete>
int exchange(int fd, const uint8_t *frame, size_t frame_len, answer_wait wait, const char *timeout_text,
             uint8_t *buf, size_t &got, const Complete &complete)
{
    if (write(fd, frame, frame_len) < 0) {
        // Not acted upon: the wait reports the missing answer.
    }
    got = 0;
    const answer_end end = read_until_complete(fd, buf, ANSWER_BUF_SIZE, got, wait, complete);
    if (got > 0)
        return 0;
    if (end == answer_end::wait_failed) {
        perror("select");
        return -1;
    }
    if (end == answer_end::time_out) {
        g_print("%s", timeout_text);
        return -2;
    }
    return 0; // a failed read: buf[0] stays 0
}

// 0, or -1 select error, -2 no answer in time, -3 refused.
int read_data(int fd, const uint8_t *frame, uint8_t *buf, size_t &got)
{
    const answer_wait wait{now_ms() + EXCHANGE_BUDGET_MS};
    buf[0] = 0;
    int rc = exchange(fd, frame, PPI_REQUEST_LEN, wait, "timeout1\n", buf, got,
                      [](const uint8_t *, size_t) { return true; });
    if (rc != 0)
        return rc;
    if (buf[0] != PPI_SHORT_ACK) {
        g_print("cmd error\n");
        return -3;
    }
    buf[0] = 0;
    // An SD2 answer whose length byte has come is waited for whole, so that
    // one delivered in pieces is not cut short.
    return exchange(fd, PPI_confirm, sizeof PPI_confirm, wait, "timeout2\n", buf, got,
                    [](const uint8_t *b, size_t n) {
                        return n < 2 || b[0] != PPI_SD2 || n >= static_cast<size_t>(b[1]) + 6;
                    });
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
    if (read_data(fd, frame, buf, got) != 0 ||
        PPI_decode_value(buf, got, item_code, data_type, value, NODE_VALUE_SIZE) != 0) {
        snprintf(value, NODE_VALUE_SIZE, "read error");
        return -1;
    }
    return 0;
}

} // namespace

DRIVER_LIFECYCLE(siemens_s7_200, serial_slot, plain_voice, "siemens_s7_200_drv.drv.priv != NULL\n")

static int siemens_s7_200_open(plc_device *dev)
{
    return serial_open_op(siemens_s7_200_drv, DRIVER_HERE, dev);
}

static int siemens_s7_200_release(plc_device *)
{
    return serial_release_op(siemens_s7_200_drv, plain_voice, DRIVER_HERE);
}

static int siemens_s7_200_read(plc_device *dev, char *addr, uint32_t data_type, char *value)
{
    const auto *slot = static_cast<const serial_slot *>(siemens_s7_200_drv.priv);
    const serial_device *sd = as_serial(dev);
    if (slot == nullptr || sd == nullptr || dev->dev_comm_type != DEV_COMM_SERIAL) {
        g_print("<%s>: Failed to get drvdata\n", __func__);
        return -1;
    }
    if (identify_and_read(serial_port_fd(*slot), static_cast<uint8_t>(sd->station_num), addr, data_type,
                          value) != 0) {
        snprintf(value, NODE_VALUE_SIZE, "read error");
        g_print("%s", value);
        return -1;
    }
    return 0;
}

DRIVER_DESCRIPTOR(siemens_s7_200, plain_voice, DEV_COMM_SERIAL, DEV_MFG_SIEMENS, DEV_TYPE_S7_200)
