// Delta DVP-32EC over Modbus ASCII: one coil, input or register per request.
#include <termios.h>
#include <unistd.h>

#include <cstdio>

#include "codec/dvp_codec.h"
#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"
#include "device/driver/exchange.h"
#include "device/driver/serial/serial_port.h"
#include "device/driver/uart.h"
#include "device/plc/plc_serial.h"

namespace {

constexpr int64_t CHUNK_WAIT_MS = 150; // renewed for every chunk
constexpr size_t ANSWER_SIZE = 40;

// One exchange: 0 done; 1 write failed; 2 wait failed; 3 time-out; 4 read
// failed; 13-15 the answer did not decode.
int get_point_value(serial_slot &port, const char *address_hex, const char *code, uint32_t *value,
                    uint32_t station)
{
    const int fd = serial_port_fd(port);
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
    // An answer ends with its line end; one longer than any one-point
    // answer is cut, and fails to decode.
    char answer[ANSWER_SIZE + 1] = {};
    size_t len = 0;
    const auto line_end = [](const uint8_t *a, size_t n) { return a[n - 1] == '\n' || n == ANSWER_SIZE; };
    switch (read_until_complete(fd, reinterpret_cast<uint8_t *>(answer), ANSWER_SIZE, len,
                                answer_wait{now_ms() + CHUNK_WAIT_MS, CHUNK_WAIT_MS}, line_end)) {
    case answer_end::complete: break;
    case answer_end::wait_failed: g_print("select err\n"); return 2;
    case answer_end::time_out: g_print("select timeout\n"); return 3;
    default: return 4;
    }
    g_print("%s", answer);
    char exception[3] = {};
    const int d = analysis_delta(answer, len, code, value, exception);
    if (d == -3)
        g_print("delta respond err = %s\n", exception);
    return d != 0 ? d + 16 : 0;
}

} // namespace

DRIVER_LIFECYCLE(delta_dvp32ec, serial_slot, plain_voice, "delta_dvp32ec_drv.drv.priv != NULL\n")

static int delta_dvp32ec_open(plc_device *dev)
{
    serial_slot *slot = delta_dvp32ec_entered(DRIVER_HERE);
    if (slot == nullptr)
        return -1;
    const port_opened p = serial_port_open(dev, slot);
    switch (p.fault) {
    case port_fault::none: g_print("uart open success : %s\n", p.path); return 0;
    case port_fault::open_failed: g_print("open error : %s\n", p.path); return -1;
    default: g_print("serial_number err\n"); return -1;
    }
}

static int delta_dvp32ec_release(plc_device *)
{
    driver_log_only(plain_voice, __func__);
    return serial_release_op(delta_dvp32ec_drv, plain_voice, DRIVER_HERE);
}

// addr is the reading loop's own copy of the node's address: it is
// upper-cased in place, so the published address is the one read ("d100"
// goes out as "D100").
static int delta_dvp32ec_read(plc_device *dev, char *addr, uint32_t data_type, char *value)
{
    serial_slot *slot = delta_dvp32ec_entered(DRIVER_HERE);
    if (slot == nullptr)
        return -1;
    char code[3];
    if (get_code(code, addr, data_type) != 0) {
        g_print("get code err\n");
        return -1;
    }
    char letter = 0;
    char hex[5];
    if (mapping(addr, &letter, hex) != 0) {
        // Unmasked, the start address takes more than four digits (D28672
        // gives 10000), which leaves the LRC an odd number of digits to
        // sum: the request cannot be formed and is not sent.
        g_print("get_LRC : input_len%%2 != 0\n");
        return -1;
    }
    uint32_t v = 0;
    const serial_device *sd = as_serial(dev);
    if (sd == nullptr || get_point_value(*slot, hex, code, &v, sd->station_num) != 0)
        return -1;
    snprintf(value, NODE_VALUE_SIZE, "%d", static_cast<int>(v));
    g_print("<%s> = %s\n", addr, value);
    return 0;
}

DRIVER_DESCRIPTOR(delta_dvp32ec, plain_voice, DEV_COMM_SERIAL, DEV_MFG_DELTA, DEV_TYPE_DVP_32EC)
