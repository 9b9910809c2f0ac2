// Mitsubishi Q series over a serial line: one point per request, QnA 4C
// binary format 5. (The driver's name is spelt "mitusbishi" everywhere: the
// gateway's configuration tools know it by that name.)
#include <unistd.h>

#include <cerrno>

#include "codec/qna_4c_codec.h"
#include "device/driver/driver_lifecycle.h"
#include "device/driver/driver_modules.h"
#include "device/driver/exchange.h"
#include "device/driver/serial/serial_port.h"
#include "device/plc/plc_serial.h"

#define QS_LOG(fmt, ...) g_critical("%s:%d " fmt, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)

namespace {

constexpr uint32_t RESPONSE_BUF_SIZE = 100;
constexpr int64_t RESPONSE_WAIT_MS = 1000; // renewed for every wait

// Whether R[0..offset) is a whole answer, saying why not once its length is
// known. Nothing is ever discarded: an answer that does not fit stays
// unfound and the time-out ends the read.
bool response_complete(const uint8_t *R, size_t offset)
{
    if (offset < 4)
        return false;
    if (R[0] != QnA_4C_DLE) {
        QS_LOG("R[0] != DLE\n");
        return false;
    }
    const uint32_t data_num = R[2] | (static_cast<uint32_t>(R[3]) << 8);
    // DLE STX, length, data, DLE ETX, two sum characters; up to two more for
    // doubled DLE bytes.
    const uint32_t response_min_len = data_num + 8;
    const uint32_t response_max_len = response_min_len + 2;
    if (offset < response_min_len)
        return false;
    if (offset > response_max_len) {
        QS_LOG("offset:%u > response_max_len:%u\n", static_cast<unsigned>(offset), response_max_len);
        return false;
    }
    if (R[offset - 3] != QnA_4C_ETX) {
        QS_LOG("R[-3]:%xH != ETX\n", R[offset - 3]);
        return false;
    }
    return true;
}

} // namespace

DRIVER_LIFECYCLE(mitusbishi_Qserial, serial_slot, q_serial_voice,
                 "mitusbishi_Qserial_drv.drv.priv != NULL\n")

static int mitusbishi_Qserial_open(plc_device *dev)
{
    serial_slot *slot = mitusbishi_Qserial_data(DRIVER_HERE);
    if (slot == nullptr)
        return -1;
    // A record of the other kind can be bound by maker and model alone; it
    // has no line settings to read.
    const serial_device *sDev = as_serial(dev);
    if (sDev == nullptr || dev->dev_comm_type != DEV_COMM_SERIAL) {
        QS_LOG("dev_comm_type = %u\n", dev->dev_comm_type);
        return -1;
    }
    // Stricter than the other serial drivers: no parity it does not know.
    if (sDev->parity_bit > 2) {
        QS_LOG("sDev->parity_bit = %u\n", sDev->parity_bit);
        return -1;
    }
    const port_opened p = serial_port_open(dev, slot);
    if (p.fault == port_fault::no_port)
        QS_LOG("serial_number = %u\n", sDev->serial_number);
    else if (p.fault == port_fault::open_failed)
        QS_LOG("open %s : %s\n", p.path, g_strerror(errno));
    return p.fault == port_fault::none ? 0 : -1;
}

static int mitusbishi_Qserial_release(plc_device *)
{
    return serial_release_op(mitusbishi_Qserial_drv, q_serial_voice, DRIVER_HERE);
}

static int mitusbishi_Qserial_read(plc_device *, char *addr, uint32_t data_type, char *value)
{
    const serial_slot *slot = mitusbishi_Qserial_data(DRIVER_HERE);
    if (slot == nullptr)
        return -1;
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
    const int fd = serial_port_fd(*slot);
    const ssize_t rc = write(fd, QnA_4C_request_msg(), static_cast<size_t>(msg_len));
    if (rc == -1) {
        QS_LOG("write : %s\n", g_strerror(errno));
        return -1;
    }
    if (rc < msg_len) {
        QS_LOG("write : rc:%d != msg_len:%d : %s\n", static_cast<int>(rc), msg_len, g_strerror(errno));
        return -1;
    }
    uint8_t R[RESPONSE_BUF_SIZE] = {};
    size_t offset = 0;
    switch (read_until_complete(fd, R, sizeof R, offset,
                                answer_wait{now_ms() + RESPONSE_WAIT_MS, RESPONSE_WAIT_MS},
                                [](const uint8_t *b, size_t n) { return response_complete(b, n); })) {
    case answer_end::complete: break;
    case answer_end::wait_failed: QS_LOG("select : %s\n", g_strerror(errno)); return -1;
    case answer_end::read_failed: QS_LOG("read : %s\n", g_strerror(errno)); return -1;
    default: QS_LOG("respond timeout \n"); return -1; // a closed line gives nothing more either
    }
    uint16_t respond_code = 0;
    if (analysis_QnA_4C_respond_msg_of_format_5(R, offset, &respond_code, value, NODE_VALUE_SIZE) < 0)
        return -1;
    return respond_code != 0 ? -1 : 0;
}

DRIVER_DESCRIPTOR(mitusbishi_Qserial, q_serial_voice, DEV_COMM_SERIAL, DEV_MFG_MITSUBISHI,
                  DEV_TYPE_Q_SERIAL)
