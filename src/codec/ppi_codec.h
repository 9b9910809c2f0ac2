// Siemens S7-200 PPI frames for reading one variable: the SD2 frame that
// carries the S7 read job, the fixed SD1 short frames, and the decoding of
// the data bytes of the answer.
#pragma once

#include <cstddef>
#include <cstdint>

constexpr size_t PPI_REQUEST_LEN = 33;
constexpr size_t PPI_SHORT_FRAME_LEN = 6;
constexpr uint8_t PPI_SD1 = 0x10;
constexpr uint8_t PPI_SD2 = 0x68;
constexpr uint8_t PPI_ED = 0x16;
constexpr uint8_t PPI_SHORT_ACK = 0xE5;
// Offset of the first data byte in the PLC's answer frame.
constexpr size_t PPI_DATA_OFFSET = 25;

// Asks station 2 for the answer pending after an acknowledged job. Always
// station 2, whatever station the job went to: gateways in the field have
// always sent it so.
extern const uint8_t PPI_confirm[PPI_SHORT_FRAME_LEN];
// FDL status request to station 2; kept for line diagnostics, never sent.
extern const uint8_t PPI_hello[PPI_SHORT_FRAME_LEN];

// Item codes: the (area, access size) pair an address was parsed to. 0 means
// no valid item.
enum ppi_item : int {
    PPI_ITEM_NONE = 0,
    PPI_ITEM_IQ_BIT = 2,
    PPI_ITEM_V_BIT = 3,
    PPI_ITEM_V_BYTE = 4,
    PPI_ITEM_V_WORD = 5,
    PPI_ITEM_V_DWORD = 6,
    PPI_ITEM_C = 7,
    PPI_ITEM_T = 8,
    PPI_ITEM_M_BIT = 9,
    PPI_ITEM_S_BIT = 13,
    PPI_ITEM_SM_BIT = 17,
    PPI_ITEM_IQ_WORD_OLD = 22,  // kept beside 25 by the answer decoding
    PPI_ITEM_IQ_DWORD_OLD = 23, // kept beside 26
    PPI_ITEM_IQ_BYTE = 24,
    PPI_ITEM_IQ_WORD = 25,
    PPI_ITEM_IQ_DWORD = 26,
};

// Sum of the bytes modulo 256 (the frame check sequence).
uint8_t PPI_CheckSum(const uint8_t *data, size_t len);

// Bit address of a lower-case address text for the parsed item, after the
// range check of its byte number; -1 (and *item_code cleared) otherwise.
int addrToNum(const char *addr, int *item_code);

// Builds the 33-byte read request for `addr` ("VW100", "I0.1", "SMB28",
// "C5") read as `data_type` from station `station`. 0, or -1 with
// *item_code 0 when the address or the type is not accepted.
int getReadCommandFrame(const char *addr, uint32_t data_type, uint8_t station,
                        uint8_t frame[PPI_REQUEST_LEN], int *item_code);

// Writes the value text of the answer's data bytes (offsets 25 to 28) for
// the data type. 0 on success, also for an unsupported type, which gives
// "unkown type"; -1 when the answer is too short to hold the data.
int PPI_decode_value(const uint8_t *answer, size_t len, int item_code, uint32_t data_type,
                     char *value, size_t value_size);
