#include "sim/ppi_sim.h"

#include "codec/ppi_codec.h"

namespace sim {

namespace {

constexpr uint8_t FC_REQUEST_DATA = 0x5C; // SD1 fetch, frame count bit clear
constexpr uint8_t FC_REQUEST_DATA_FCB = 0x7C;
constexpr uint8_t FC_RESPONSE = 0x08;
constexpr uint8_t FC_NO_RESOURCE = 0x02;

// Element-wise: GCC 12 misreads range inserts into a just-built vector.
void append(std::vector<uint8_t> &to, const std::vector<uint8_t> &from)
{
    for (uint8_t b : from)
        to.push_back(b);
}

std::vector<uint8_t> sd2(uint8_t da, uint8_t sa, uint8_t fc, const std::vector<uint8_t> &pdu)
{
    const auto le = static_cast<uint8_t>(pdu.size() + 3);
    std::vector<uint8_t> f = {PPI_SD2, le, le, PPI_SD2, da, sa, fc};
    append(f, pdu);
    f.push_back(PPI_CheckSum(f.data() + 4, le));
    f.push_back(PPI_ED);
    return f;
}

} // namespace

PpiSim::PpiSim(uint8_t station) : station_(station)
{
    memory_[AREA_I].resize(16);
    memory_[AREA_Q].resize(16);
    memory_[AREA_M].resize(32);
    memory_[AREA_S].resize(32);
    memory_[AREA_SM].resize(550);
    memory_[AREA_V].resize(10240);
    memory_[AREA_C].resize(256 * 2);
    memory_[AREA_T].resize(256 * 2);
}

bool PpiSim::accepts(uint8_t first) const
{
    return first == PPI_SD2 || first == PPI_SD1;
}

bool PpiSim::set_bytes(uint8_t area, size_t offset, const std::vector<uint8_t> &bytes)
{
    std::lock_guard<std::mutex> lock(mutex_);
    auto it = memory_.find(area);
    if (it == memory_.end() || offset > it->second.size() || bytes.size() > it->second.size() - offset)
        return false;
    std::copy(bytes.begin(), bytes.end(), it->second.begin() + static_cast<long>(offset));
    return true;
}

bool PpiSim::set_count(uint8_t area, unsigned number, uint16_t value)
{
    if (area != AREA_C && area != AREA_T)
        return false;
    return set_bytes(area, size_t{number} * 2, {static_cast<uint8_t>(value >> 8), static_cast<uint8_t>(value)});
}

size_t PpiSim::feed(const uint8_t *data, size_t len, std::vector<uint8_t> &answer)
{
    return data[0] == PPI_SD2 ? feed_job(data, len, answer) : feed_short(data, len, answer);
}

size_t PpiSim::feed_job(const uint8_t *data, size_t len, std::vector<uint8_t> &answer)
{
    if (len < 4)
        return 0;
    const uint8_t le = data[1];
    if (data[2] != le || data[3] != PPI_SD2 || le < 3)
        return 1;
    const size_t total = size_t{le} + 6;
    if (len < total)
        return 0;
    // Corrupted frames and frames for other stations go unanswered, as on
    // a real bus.
    if (data[total - 1] != PPI_ED || PPI_CheckSum(data + 4, le) != data[4 + le] || data[4] != station_)
        return total;
    // A new job replaces whatever the master never fetched.
    {
        std::lock_guard<std::mutex> lock(mutex_);
        pending_.clear();
    }
    const uint8_t master = data[5];
    // S7 job header, read variable, one item of the 10-byte any-pointer kind.
    const bool read_job = le == 0x1B && data[7] == 0x32 && data[8] == 0x01 && data[17] == 0x04 &&
                          data[18] == 0x01 && data[19] == 0x12 && data[20] == 0x0A && data[21] == 0x10;
    if (!read_job)
        return total;
    ++jobs_;
    if (faults.nak) {
        answer = {PPI_SD1, master, station_, FC_NO_RESOURCE,
                  static_cast<uint8_t>(master + station_ + FC_NO_RESOURCE), PPI_ED};
        return total;
    }
    if (faults.silent)
        return total;
    std::vector<uint8_t> reply = answer_for(data, master);
    if (faults.bad_checksum)
        reply[reply.size() - 2] ^= 0x5A;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        pending_ = std::move(reply);
    }
    answer = {PPI_SHORT_ACK};
    return total;
}

size_t PpiSim::feed_short(const uint8_t *data, size_t len, std::vector<uint8_t> &answer)
{
    if (len < PPI_SHORT_FRAME_LEN)
        return 0;
    const uint8_t fc = data[3];
    // Not a short frame: another protocol's (a QnA 4C request also starts
    // with 0x10) or line noise.
    if (data[5] != PPI_ED || PPI_CheckSum(data + 1, 3) != data[4])
        return NOT_MINE;
    // A fetch addressed to another station is not ours to answer; the
    // answer stays for a fetch that is.
    if (data[1] != station_ || (fc != FC_REQUEST_DATA && fc != FC_REQUEST_DATA_FCB))
        return PPI_SHORT_FRAME_LEN;
    std::lock_guard<std::mutex> lock(mutex_);
    answer = std::move(pending_);
    pending_.clear();
    return PPI_SHORT_FRAME_LEN;
}

std::vector<uint8_t> PpiSim::answer_for(const uint8_t *job, uint8_t master)
{
    const uint8_t transport = job[22];
    const uint8_t area = job[27];
    const uint32_t address = uint32_t{job[28]} << 16 | uint32_t{job[29]} << 8 | job[30];
    // Bit address to bytes: a bit reads the byte holding it; counters and
    // timers are numbered and hold two bytes each.
    size_t offset = address / 8;
    size_t size = 0;
    uint8_t answer_transport = 0x04; // bytes, length in bits
    switch (transport) {
    case 0x01: size = 1; answer_transport = 0x03; break;
    case 0x02: size = 1; break;
    case 0x04: size = 2; break;
    case 0x06: size = 4; break;
    case 0x1E: case 0x1F: offset = size_t{address} * 2; size = 2; answer_transport = 0x09; break;
    default: break;
    }
    std::vector<uint8_t> data;
    {
        std::lock_guard<std::mutex> lock(mutex_);
        auto it = memory_.find(area);
        const bool known = it != memory_.end() && size > 0 && offset + size <= it->second.size() &&
                           ((transport == 0x1E) == (area == AREA_C)) && ((transport == 0x1F) == (area == AREA_T));
        if (known && !faults.exception) {
            data.assign(it->second.begin() + static_cast<long>(offset),
                        it->second.begin() + static_cast<long>(offset + size));
            if (transport == 0x01)
                data[0] = (data[0] >> (address % 8)) & 1;
        }
    }
    const uint16_t length = answer_transport == 0x09 ? static_cast<uint16_t>(data.size())
                          : transport == 0x01        ? 1
                                                     : static_cast<uint16_t>(data.size() * 8);
    const auto data_len = static_cast<uint16_t>(data.empty() ? 1 : 4 + data.size());
    std::vector<uint8_t> pdu = {0x32, 0x03, 0x00, 0x00, job[11], job[12], 0x00, 0x02,
                                static_cast<uint8_t>(data_len >> 8), static_cast<uint8_t>(data_len),
                                0x00, 0x00, 0x04, 0x01};
    if (data.empty()) {
        pdu.push_back(RETURN_NO_OBJECT);
    } else {
        append(pdu, {0xFF, answer_transport, static_cast<uint8_t>(length >> 8), static_cast<uint8_t>(length)});
        append(pdu, data);
    }
    return sd2(master, station_, FC_RESPONSE, pdu);
}

} // namespace sim
