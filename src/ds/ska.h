// SKA keep-alive on its own UDP socket (port 49235).
#pragma once

#include <cstdint>

constexpr uint16_t SKA_PORT = 49235;
constexpr uint16_t SKA_MAGIC = 0x4B41; // 'K' 'A'
constexpr uint32_t SKA_BUFFER_SIZE = 4084;
constexpr uint32_t SKA_HEADER_SIZE = 4;
constexpr uint32_t SKA_MIN_PACKET = 6;

struct dypd_ds_ska_record {
    int32_t fd;      // -1 when closed
    uint8_t *buffer; // SKA_BUFFER_SIZE + 1 bytes
};

extern dypd_ds_ska_record dypd_ds_ska;

int dypd_ds_ska_init();
void dypd_ds_ska_cleanup();
int dypd_ds_ska_get_fd();
void dypd_ds_ska_handler();
