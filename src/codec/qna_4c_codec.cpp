#include "codec/qna_4c_codec.h"

#include <glib.h>

#include <climits>
#include <cstdio>
#include <cstring>

// Every failure is logged critical, prefixed with the function and line.
#define QNA_LOG(fmt, ...) g_critical("%s:%d " fmt, __func__, __LINE__ __VA_OPT__(, ) __VA_ARGS__)
// Field bounds: a short answer stops the analysis before any byte past it is read.
#define QNA_NEED(k)                                                  \
    do {                                                             \
        if (pos + (k) > len) {                                       \
            QNA_LOG("offset:%u+" #k ">len:%u\n", pos, len);          \
            return -1;                                               \
        }                                                            \
    } while (0)

namespace {

// The sum check is always on: requests carry it and answers must match it.
constexpr int flag_and_check = 1;

// Shared by the builders and the analysers, see the header.
uint8_t request_msg[QnA_4C_BUF_SIZE];
uint16_t global_sub_command = SUB_COMMAND_WORD;
char global_softComponent[64];

// Rows of code, separator and hex value as the device table has always
// been kept; parsed on each lookup.
const char *const softComponent_table[] = {
    "SM,0X91", "SD,0XA9", "X*,0X9C", "Y*,0X9D", "M*,0X90", "L*,0X92", "F*,0X93",
    "V*,0X94", "B*,0XA0", "D*,0XA8", "W*,0XB4", "TS,0XC1", "TC,0XC0", "TN,0XC2",
    "SS,0XC7", "SC,0XC6", "SN,0XC8", "CS,0XC4", "CC,0XC3", "CN,0XC5", "SB,0XA1",
    "SW,0XB5", "S*,0X98", "DX,0XA2", "DY,0XA3", "Z*,0XCC", "R*,0XAF", "ZR,0XB0",
};

void remember_request(uint16_t sub_command, const char *softComponent)
{
    global_sub_command = sub_command;
    g_strlcpy(global_softComponent, softComponent, sizeof global_softComponent);
}

// `k` hexadecimal characters (either case) as a number; UINT32_MAX when any
// of them is not a hex digit, which no field of the protocol can equal.
uint32_t hex_at(const uint8_t *p, uint32_t k)
{
    uint32_t v = 0;
    for (uint32_t i = 0; i < k; ++i) {
        const int digit = g_ascii_xdigit_value(static_cast<char>(p[i]));
        if (digit < 0)
            return UINT32_MAX;
        v = v * 16 + static_cast<uint32_t>(digit);
    }
    return v;
}

// The value text of a good answer, and its trace line.
void publish_value(uint32_t value, char *str_value, size_t value_size)
{
    snprintf(str_value, value_size, "%u", value);
    if (global_sub_command == SUB_COMMAND_WORD)
        g_print("%s = %xH\n", global_softComponent, value);
    else
        g_print("%s = %u\n", global_softComponent, value);
}

// Appends "%0*X" of `v` (the width fixed by the field) to the request.
void put_hex(uint32_t &pos, uint32_t v, int width)
{
    char tmp[16];
    snprintf(tmp, sizeof tmp, "%0*X", width, v);
    const size_t n = strlen(tmp);
    memcpy(request_msg + pos, tmp, n);
    pos += static_cast<uint32_t>(n);
}

void put_text(uint32_t &pos, const char *text)
{
    const size_t n = strlen(text);
    memcpy(request_msg + pos, text, n);
    pos += static_cast<uint32_t>(n);
}

} // namespace

void upper_string(char *text)
{
    if (text == nullptr)
        return;
    for (; *text != '\0'; ++text)
        *text = g_ascii_toupper(*text);
}

int analysis_softComponent(const char *softComponent, char *code, int *address)
{
    if (softComponent == nullptr) {
        QNA_LOG("softComponent = NULL\n");
        return -1;
    }
    if (code == nullptr || address == nullptr)
        return -1;
    size_t letters = 0;
    while (letters < 2 && g_ascii_isalpha(softComponent[letters]))
        ++letters;
    // The number must follow the letters at once: "DX" alone or "D-5" is no address.
    if (letters == 0 || !g_ascii_isdigit(softComponent[letters])) {
        QNA_LOG("softComponent = %s\n", softComponent);
        return -1;
    }
    code[0] = softComponent[0];
    code[1] = letters == 2 ? softComponent[1] : '*';
    code[2] = '\0';
    upper_string(code);
    // Decimal for every device, X and Y included. Saturates so that an
    // absurdly long number fails the range checks instead of wrapping.
    long long number = 0;
    for (const char *p = softComponent + letters; g_ascii_isdigit(*p); ++p) {
        number = number * 10 + (*p - '0');
        if (number > INT_MAX)
            number = INT_MAX;
    }
    *address = static_cast<int>(number);
    return 0;
}

int transform_softComponentCode_from_ascii_to_hex(const char *asciiCode, uint8_t *hexCode)
{
    if (asciiCode == nullptr) {
        QNA_LOG("asciiCode = NULL\n");
        return -1;
    }
    if (hexCode == nullptr) {
        QNA_LOG("hexCode = NULL\n");
        return -1;
    }
    for (const char *row : softComponent_table) {
        char temp_code[3] = {};
        char temp_separator = 0;
        unsigned int temp_hex = 0;
        if (sscanf(row, "%2[A-Z*]%c%4x", temp_code, &temp_separator, &temp_hex) != 3)
            continue;
        if (temp_separator != ',') {
            QNA_LOG("temp_separator[i] = %c\n", temp_separator);
            return -1;
        }
        if (strcmp(temp_code, asciiCode) == 0) {
            *hexCode = static_cast<uint8_t>(temp_hex);
            return 0;
        }
    }
    QNA_LOG("asciiCode = %s ,can't get hexcode\n", asciiCode);
    return -1;
}

int QnA_4C_units(uint8_t softComponent_hexCode)
{
    switch (softComponent_hexCode) {
    case 0x90: case 0x91: case 0x92: case 0x93: case 0x94: case 0x98: case 0x9C: case 0x9D:
    case 0xA0: case 0xA1: case 0xA2: case 0xA3: case 0xC0: case 0xC1: case 0xC3: case 0xC4:
    case 0xC6: case 0xC7:
        return SUB_COMMAND_BIT;
    case 0xA8: case 0xA9: case 0xAF: case 0xB0: case 0xB4: case 0xB5: case 0xC2: case 0xC5:
    case 0xC8: case 0xCC:
        return SUB_COMMAND_WORD;
    default:
        return -1;
    }
}

int check(uint8_t softComponent_hexCode, uint16_t sub_command)
{
    const int units = QnA_4C_units(softComponent_hexCode);
    if (units == SUB_COMMAND_BIT && sub_command != SUB_COMMAND_BIT) {
        QNA_LOG("softComponent_hexCode:%xH != SUB_COMMAND_BIT\n", softComponent_hexCode);
        return -1;
    }
    if (units == SUB_COMMAND_WORD && sub_command != SUB_COMMAND_WORD) {
        QNA_LOG("softComponent_hexCode:%xH != SUB_COMMAND_WORD\n", softComponent_hexCode);
        return -1;
    }
    if (units < 0) {
        QNA_LOG("other:softComponent_hexCode = %xH\n", softComponent_hexCode);
        return -1;
    }
    return 0;
}

uint8_t QnA_4C_sum(const uint8_t *data, size_t len)
{
    unsigned int sum = 0;
    for (size_t i = 0; i < len; ++i)
        sum += data[i];
    return static_cast<uint8_t>(sum);
}

size_t QnA_4C_dle_double(const uint8_t *frame, size_t len, uint8_t *out, size_t out_size)
{
    size_t n = 0;
    for (size_t i = 0; i < len; ++i) {
        const bool twice = i >= 2 && i + 4 < len && frame[i] == QnA_4C_DLE;
        if (n + (twice ? 2 : 1) > out_size)
            return 0;
        out[n++] = frame[i];
        if (twice)
            out[n++] = frame[i];
    }
    return n;
}

const uint8_t *QnA_4C_request_msg()
{
    return request_msg;
}

int build_QnA_4C_request_msg_of_format_1_4(uint32_t format_number, uint16_t sub_command,
                                           const char *softComponent)
{
    if (format_number > 4) {
        QNA_LOG("format_number:%u > 4\n", format_number);
        return -1;
    }
    if (sub_command != SUB_COMMAND_WORD && sub_command != SUB_COMMAND_BIT) {
        QNA_LOG("sub_command = %xH\n", sub_command);
        return -1;
    }
    char code[3];
    int address = 0;
    if (analysis_softComponent(softComponent, code, &address) != 0)
        return -1;
    if (address > 999999) {
        QNA_LOG("softComponent_address:%d > 999999\n", address);
        return -1;
    }
    memset(request_msg, 0, sizeof request_msg);
    uint32_t pos = 0;
    request_msg[pos++] = format_number == 3 ? QnA_4C_STX : QnA_4C_ENQ;
    if (format_number == 2)
        put_text(pos, "00"); // block number
    // Frame ID, station, network, PC number, destination I/O and station, self station.
    put_text(pos, "F80000FF03FF0000");
    put_text(pos, "0401");
    put_hex(pos, sub_command, 4);
    // Formats 1-4 send the code as typed; only format 5 needs the table.
    put_text(pos, code);
    char number[16];
    snprintf(number, sizeof number, "%06d", address);
    put_text(pos, number);
    put_text(pos, "0001");
    if (format_number == 3)
        request_msg[pos++] = QnA_4C_ETX;
    if (flag_and_check)
        put_hex(pos, QnA_4C_sum(request_msg + 1, pos - 1), 2);
    if (format_number == 4) {
        request_msg[pos++] = QnA_4C_CR;
        request_msg[pos++] = QnA_4C_LF;
    }
    remember_request(sub_command, softComponent);
    return static_cast<int>(pos);
}

int build_QnA_4C_request_msg_of_format_5(uint16_t sub_command, const char *softComponent)
{
    if (sub_command != SUB_COMMAND_WORD && sub_command != SUB_COMMAND_BIT) {
        QNA_LOG("sub_command = %xH\n", sub_command);
        return -1;
    }
    char code[3];
    int address = 0;
    uint8_t hex_code = 0;
    if (analysis_softComponent(softComponent, code, &address) != 0)
        return -1;
    if (transform_softComponentCode_from_ascii_to_hex(code, &hex_code) != 0)
        return -1;
    if (check(hex_code, sub_command) != 0)
        return -1;
    if (address >= 0x1000000) {
        QNA_LOG("softComponent_address:0x%x > 0xffffff\n", static_cast<unsigned int>(address));
        return -1;
    }
    const auto a = static_cast<uint32_t>(address);
    uint8_t frame[32] = {
        QnA_4C_DLE, QnA_4C_STX,
        18, 0x00,                   // data bytes: frame ID through number of points
        0xF8, 0x00, 0x00, 0xFF,     // frame ID, station, network, PC number
        0xFF, 0x03, 0x00, 0x00,     // destination I/O 03FF and station, self station
        0x01, 0x04,                 // batch read
        static_cast<uint8_t>(sub_command), 0x00,
        static_cast<uint8_t>(a), static_cast<uint8_t>(a >> 8), static_cast<uint8_t>(a >> 16),
        hex_code,
        0x01, 0x00,                 // one point
        QnA_4C_DLE, QnA_4C_ETX,
    };
    size_t len = 24;
    if (flag_and_check) {
        char sum[3];
        snprintf(sum, sizeof sum, "%02X", QnA_4C_sum(frame + 2, 20));
        frame[len++] = static_cast<uint8_t>(sum[0]);
        frame[len++] = static_cast<uint8_t>(sum[1]);
    }
    memset(request_msg, 0, sizeof request_msg);
    const size_t n = QnA_4C_dle_double(frame, len, request_msg, sizeof request_msg);
    remember_request(sub_command, softComponent);
    return static_cast<int>(n);
}

int analysis_QnA_4C_respond_msg_of_format_1_4(uint32_t format_number, const uint8_t *respond_data,
                                              uint32_t len, uint16_t *prespond_code,
                                              char *str_value, size_t value_size)
{
    if (respond_data == nullptr) {
        QNA_LOG("respond_data = NULL\n");
        return -1;
    }
    if (prespond_code == nullptr) {
        QNA_LOG("prespond_code = NULL\n");
        return -1;
    }
    if (str_value == nullptr || value_size == 0) {
        QNA_LOG("str_value = NULL\n");
        return -1;
    }
    if (format_number > 4) {
        QNA_LOG("format_number:%u > 4\n", format_number);
        return -1;
    }
    const uint8_t *d = respond_data;
    uint32_t pos = 0;
    uint32_t temp = 0;
    QNA_NEED(1);
    const bool nak = d[0] == QnA_4C_NAK;
    if (d[0] != QnA_4C_STX && !nak) {
        QNA_LOG("d[%u]:%xH != STX:%xH or NAK:%xH\n", pos, d[0], QnA_4C_STX, QnA_4C_NAK);
        return -1;
    }
    pos = 1;
    struct expected_field {
        uint32_t width; // hex characters
        uint32_t value;
        const char *name;
    };
    // Frame ID, station, network, PC number, destination I/O and station, self station.
    const expected_field fields[] = {
        {2, 0xF8, "identify_frame"}, {2, 0x00, "station_number"}, {2, 0x00, "network_number"},
        {2, 0xFF, "plc_number"}, {4, 0x03FF, "io_number"}, {2, 0x00, "target_station_number"},
        {2, 0x00, "upper_station_number"}};
    if (format_number == 2) {
        QNA_NEED(2);
        if ((temp = hex_at(d + pos, 2)) != 0) {
            QNA_LOG("position=%u; offset=2; tempValue:%xH != block_number:%xH\n", pos, temp, 0);
            return -1;
        }
        pos += 2;
    }
    for (const auto &f : fields) {
        if (pos + f.width > len) {
            QNA_LOG("offset:%u+%u>len:%u\n", pos, f.width, len);
            return -1;
        }
        if ((temp = hex_at(d + pos, f.width)) != f.value) {
            if (f.value == 0xFF)
                QNA_LOG("position=%u; offset=2; tempValue=%xH; plc_number=%xH\n", pos, temp, f.value);
            else
                QNA_LOG("position=%u; offset=%u; tempValue:%xH != %s:%xH\n", pos, f.width, temp, f.name,
                        f.value);
            return -1;
        }
        pos += f.width;
    }

    uint32_t value = 0;
    if (nak) {
        if (format_number == 3) {
            QNA_NEED(4);
            if (memcmp(d + pos, "QNAK", 4) != 0) {
                char text[5] = {};
                memcpy(text, d + pos, 4);
                QNA_LOG("position=%u; offset=4; temp:%s != abnormal_end_code:%s\n", pos, text, "QNAK");
                return -1;
            }
            pos += 4;
        }
        QNA_NEED(4);
        if ((temp = hex_at(d + pos, 4)) == UINT32_MAX) {
            QNA_LOG("position=%u; offset=4; tempValue:%xH is not hex\n", pos, temp);
            return -1;
        }
        *prespond_code = static_cast<uint16_t>(temp);
        QNA_LOG("respond_code = %xH\n", temp);
        pos += 4;
        if (format_number == 3) {
            QNA_NEED(1);
            if (d[pos] != QnA_4C_ETX) {
                QNA_LOG("d[%u]:%xH != ETX:%xH\n", pos, d[pos], QnA_4C_ETX);
                return -1;
            }
            pos += 1;
        }
    } else {
        if (format_number == 3) {
            QNA_NEED(4);
            if (memcmp(d + pos, "QACK", 4) != 0) {
                char text[5] = {};
                memcpy(text, d + pos, 4);
                QNA_LOG("position=%u; offset=4; temp:%s != normal_end_code:%s\n", pos, text, "QACK");
                return -1;
            }
            pos += 4;
        }
        if (global_sub_command == SUB_COMMAND_WORD) {
            QNA_NEED(4);
            if ((value = hex_at(d + pos, 4)) == UINT32_MAX) {
                QNA_LOG("position=%u; offset=4; tempValue:%xH is not hex\n", pos, value);
                return -1;
            }
            pos += 4;
        } else if (global_sub_command == SUB_COMMAND_BIT) {
            QNA_NEED(1);
            if (!g_ascii_isdigit(d[pos])) {
                QNA_LOG("position=%u; offset=1; tempValue:%xH is not a digit\n", pos, d[pos]);
                return -1;
            }
            value = static_cast<uint32_t>(d[pos] - '0');
            pos += 1;
        } else {
            QNA_LOG("global_sub_command = %xH\n", global_sub_command);
            return -1;
        }
        QNA_NEED(1);
        if (d[pos] != QnA_4C_ETX) {
            QNA_LOG("d[%u]:%xH != ETX:%xH\n", pos, d[pos], QnA_4C_ETX);
            return -1;
        }
        pos += 1;
        if (flag_and_check) {
            const uint8_t sum = QnA_4C_sum(d + 1, pos - 1);
            QNA_NEED(2);
            if ((temp = hex_at(d + pos, 2)) != sum) {
                QNA_LOG("position=%u; offset=2; tempValue:%xH != sum:%xH\n", pos, temp, sum);
                return -1;
            }
            pos += 2;
        }
        *prespond_code = 0;
    }
    if (format_number == 4) {
        QNA_NEED(1);
        if (d[pos] != QnA_4C_CR) {
            QNA_LOG("d[%u]:%xH != CR:%xH\n", pos, d[pos], QnA_4C_CR);
            return -1;
        }
        pos += 1;
        QNA_NEED(1);
        if (d[pos] != QnA_4C_LF) {
            QNA_LOG("d[%u]:%xH != LF:%xH\n", pos, d[pos], QnA_4C_LF);
            return -1;
        }
        pos += 1;
    }
    if (pos != len)
        QNA_LOG("offset:%u != len:%u\n", pos, len);
    if (!nak)
        publish_value(value, str_value, value_size);
    return 0;
}

int analysis_QnA_4C_respond_msg_of_format_5(const uint8_t *original_respond_data,
                                            uint32_t original_len, uint16_t *prespond_code,
                                            char *str_value, size_t value_size)
{
    if (original_respond_data == nullptr) {
        QNA_LOG("original_respond_data = NULL\n");
        return -1;
    }
    if (prespond_code == nullptr) {
        QNA_LOG("prespond_code = NULL\n");
        return -1;
    }
    if (str_value == nullptr || value_size == 0) {
        QNA_LOG("str_value = NULL\n");
        return -1;
    }
    if (original_len > QnA_4C_BUF_SIZE) {
        QNA_LOG("original_len:%u > QnA_4C_BUF_SIZE:%u\n", original_len, QnA_4C_BUF_SIZE);
        return -1;
    }
    // Undo the PLC's DLE doubling; the leading DLE STX is never doubled.
    uint8_t d[QnA_4C_BUF_SIZE];
    uint32_t len = 0;
    for (uint32_t i = 0; i < original_len;) {
        const uint8_t b = original_respond_data[i];
        d[len++] = b;
        i += (i >= 2 && b == QnA_4C_DLE && i + 1 < original_len &&
              original_respond_data[i + 1] == QnA_4C_DLE)
                 ? 2
                 : 1;
    }

    uint32_t pos = 0;
    QNA_NEED(1);
    if (d[pos] != QnA_4C_DLE) {
        QNA_LOG("d[%u]:%xH != DLE:%xH\n", pos, d[pos], QnA_4C_DLE);
        return -1;
    }
    pos += 1;
    QNA_NEED(1);
    if (d[pos] != QnA_4C_STX) {
        QNA_LOG("d[%u]:%xH != STX:%xH\n", pos, d[pos], QnA_4C_STX);
        return -1;
    }
    pos += 1;
    QNA_NEED(2);
    const uint32_t data_num = d[pos] | (static_cast<uint32_t>(d[pos + 1]) << 8);
    pos += 2;
    struct expected_byte {
        uint8_t value;
        const char *name;
    };
    // Frame ID, station, network, PC number: one byte each.
    const expected_byte head[] = {
        {0xF8, "identify_frame"}, {0x00, "station_number"}, {0x00, "network_number"}, {0xFF, "plc_number"}};
    for (const auto &e : head) {
        QNA_NEED(1);
        if (d[pos] != e.value) {
            QNA_LOG("d[%u]:%xH != %s:%xH\n", pos, d[pos], e.name, e.value);
            return -1;
        }
        pos += 1;
    }
    QNA_NEED(2);
    uint32_t temp = d[pos] | (static_cast<uint32_t>(d[pos + 1]) << 8);
    if (temp != 0x03FF) {
        QNA_LOG("position=%u; offset=2; temp:%xH != io_number:%xH\n", pos, temp, 0x03FF);
        return -1;
    }
    pos += 2;
    const expected_byte stations[] = {{0x00, "target_station_number"}, {0x00, "upper_station_number"}};
    for (const auto &e : stations) {
        QNA_NEED(1);
        if (d[pos] != e.value) {
            QNA_LOG("d[%u]:%xH != %s:%xH\n", pos, d[pos], e.name, e.value);
            return -1;
        }
        pos += 1;
    }
    QNA_NEED(2);
    temp = d[pos] | (static_cast<uint32_t>(d[pos + 1]) << 8);
    if (temp != 0xFFFF) {
        QNA_LOG("position=%u; offset=2; temp:%xH != response_identify_code:%xH\n", pos, temp, 0xFFFF);
        return -1;
    }
    pos += 2;
    QNA_NEED(2);
    const auto respond_code = static_cast<uint16_t>(d[pos] | (d[pos + 1] << 8));
    *prespond_code = respond_code;
    pos += 2;

    uint32_t value = 0;
    if (respond_code != 0) {
        QNA_LOG("respond_code = %xH\n", respond_code);
        if (data_num != 12) {
            QNA_LOG("data_num:%u != 12\n", data_num);
            return -1;
        }
    } else if (global_sub_command == SUB_COMMAND_WORD) {
        if (data_num != 14) {
            QNA_LOG("SUB_COMMAND_WORD,data_num:%u != 14\n", data_num);
            return -1;
        }
        QNA_NEED(2);
        value = d[pos] | (static_cast<uint32_t>(d[pos + 1]) << 8);
        pos += 2;
    } else if (global_sub_command == SUB_COMMAND_BIT) {
        // A bit answer carries 13 data bytes; the message has always said 15.
        if (data_num != 13) {
            QNA_LOG("SUB_COMMAND_BIT,data_num:%u != 15\n", data_num);
            return -1;
        }
        QNA_NEED(1);
        value = d[pos] != 0 ? 1 : 0;
        pos += 1;
    } else {
        QNA_LOG("global_sub_command = %xH\n", global_sub_command);
        return -1;
    }

    const uint8_t sum = QnA_4C_sum(d + 2, pos - 2);
    QNA_NEED(1);
    if (d[pos] != QnA_4C_DLE) {
        QNA_LOG("d[%u]:%xH != DLE:%xH\n", pos, d[pos], QnA_4C_DLE);
        return -1;
    }
    pos += 1;
    QNA_NEED(1);
    if (d[pos] != QnA_4C_ETX) {
        QNA_LOG("d[%u]:%xH != ETX:%xH\n", pos, d[pos], QnA_4C_ETX);
        return -1;
    }
    pos += 1;
    if (flag_and_check) {
        QNA_NEED(2);
        if ((temp = hex_at(d + pos, 2)) != sum) {
            QNA_LOG("position=%u; offset=2; tempValue:%xH != sum:%xH\n", pos, temp, sum);
            return -1;
        }
        pos += 2;
    }
    if (pos != len)
        QNA_LOG("offset:%u != len:%u\n", pos, len);
    if (respond_code == 0)
        publish_value(value, str_value, value_size);
    return 0;
}
