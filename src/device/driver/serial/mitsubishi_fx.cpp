// Mitsubishi FX-1N and FX-3U over the programming port: one ASCII device
// read per node, framed by STX/ETX with a sum check. The two models share
// this driver; the FX-3U adds Float.
#include <termios.h>
#include <unistd.h>

#include <cstdio>

#include "codec/fx_codec.h"
#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"
#include "device/driver/exchange.h"
#include "device/driver/serial/serial_port.h"

namespace {

constexpr int64_t ANSWER_WAIT_MS = 100;
constexpr size_t ANSWER_SIZE = 512;

// Sends the request and decodes the answer. 0, -1 (error, NAK) or -2 (no answer).
int read_data(int fd, const uint8_t *frame, uint32_t data_type, bool float_ok, uint8_t bit,
              char *value)
{
    // Bytes still on the line belong to an earlier exchange (an answer that
    // came too late): taken for this one they would give another device's value.
    tcflush(fd, TCIFLUSH);
    const answer_wait wait{now_ms() + ANSWER_WAIT_MS};
    if (write(fd, frame, FX_REQUEST_SIZE) < 0) {
        // Nothing more to do: the wait below ends in a time-out.
    }
    // An answer that comes in pieces (a converter that delivers it so) is
    // gathered up to its ETX and sum within the same 100 ms; a NAK, or
    // anything not led by STX, is whole as it is.
    uint8_t answer[ANSWER_SIZE] = {};
    size_t len = 0;
    const answer_end end = read_until_complete(fd, answer, sizeof answer, len, wait,
                                               [](const uint8_t *a, size_t n) {
                                                   return a[0] != FX_STX || fx_answer_complete(a, n);
                                               });
    if (len == 0 && end == answer_end::wait_failed) {
        perror("select");
        return -1;
    }
    if (len == 0 && end == answer_end::time_out) {
        g_print("timeout1\n");
        return -2;
    }
    if (len > 0 && answer[0] == FX_NAK) {
        g_print("cmd error\n");
        return -1;
    }
    // Data follow an STX; anything else is not an answer to this request.
    if (len == 0 || answer[0] != FX_STX)
        return -1;
    return fx_decode_answer(answer, len, data_type, float_ok, bit, value, NODE_VALUE_SIZE);
}

int fx_read(const serial_slot *slot, bool float_ok, const char *addr, uint32_t data_type, char *value)
{
    if (slot == nullptr)
        return -1;
    uint8_t frame[FX_REQUEST_SIZE];
    uint8_t bit = 0;
    if (!slot->open || fx_build_request(addr, frame, &bit) != 0 ||
        read_data(slot->fd, frame, data_type, float_ok, bit, value) != 0) {
        snprintf(value, NODE_VALUE_SIZE, "%s", "read error");
        return -1;
    }
    return 0;
}

} // namespace

// One model: the two share everything but the Float type.
#define FX_DRIVER(name, type, float_ok)                                                          \
    DRIVER_LIFECYCLE(name, serial_slot, plain_voice, #name "_drv.drv.priv != NULL\n")            \
    static int name##_open(plc_device *dev)                                                      \
    {                                                                                            \
        return serial_open_op(name##_drv, DRIVER_HERE, dev);                                     \
    }                                                                                            \
    static int name##_release(plc_device *)                                                      \
    {                                                                                            \
        return serial_release_op(name##_drv, plain_voice, DRIVER_HERE);                          \
    }                                                                                            \
    static int name##_read(plc_device *, char *addr, uint32_t data_type, char *value)            \
    {                                                                                            \
        return fx_read(name##_data(DRIVER_HERE), float_ok, addr, data_type, value);              \
    }                                                                                            \
    DRIVER_DESCRIPTOR(name, plain_voice, DEV_COMM_SERIAL, DEV_MFG_MITSUBISHI, type)

FX_DRIVER(mitsubishi_fx1n, DEV_TYPE_FX_1N, false)
FX_DRIVER(mitsubishi_fx3u, DEV_TYPE_FX_3U, true)
