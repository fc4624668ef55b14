// The DYP wire layout: sizes, header offsets and packet types.
#pragma once

#include <cstdint>

constexpr uint32_t DYP_REQUEST_HEADER_SIZE = 88;
constexpr uint32_t DYP_REQUEST_MAX = 510;
constexpr uint32_t DYP_RESPONSE_HEADER_SIZE = 8;
constexpr uint32_t DYP_RESPONSE_MAX = 520;
constexpr uint32_t DYP_WINDOW_MAX = 512;
constexpr uint32_t DYP_EXEC_DATA_SIZE = 422;
constexpr uint32_t DYP_ADVERTISE_REPLY_SIZE = 164;

// Request header offsets.
constexpr uint32_t DYP_REQ_TYPE = 0;    // u16 BE
constexpr uint32_t DYP_REQ_MARKER = 2;  // 2 bytes, advertise only
constexpr uint32_t DYP_REQ_NAME = 4;    // char[80]
constexpr uint32_t DYP_NAME_SIZE = 80;
constexpr uint32_t DYP_REQ_OFFSET = 84; // u16 BE
constexpr uint32_t DYP_REQ_LENGTH = 86; // u16 BE
constexpr uint32_t DYP_REQ_DATA = 88;

// Response header offsets.
constexpr uint32_t DYP_RSP_TYPE = 0; // request bytes 0-1 copied
constexpr uint32_t DYP_RSP_STATUS = 2;
constexpr uint32_t DYP_RSP_OFFSET = 4;
constexpr uint32_t DYP_RSP_LENGTH = 6;
constexpr uint32_t DYP_RSP_DATA = 8;

constexpr uint16_t DYP_TYPE_START = 1;
constexpr uint16_t DYP_TYPE_DATA = 2;
constexpr uint16_t DYP_TYPE_END = 3;
constexpr uint16_t DYP_TYPE_ADVERTISE = 4;

// Advertise marker: the value 0x0695 stored little-endian.
constexpr uint8_t DYP_ADVERTISE_MARKER0 = 0x95;
constexpr uint8_t DYP_ADVERTISE_MARKER1 = 0x06;
