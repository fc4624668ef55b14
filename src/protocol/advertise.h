// The generic advertise handler of the endpoints other than the primary one.
#pragma once

#include "protocol/port.h"

int32_t dypd_process_advertise(const uint8_t *request, uint8_t *reply, uint32_t capacity,
                               const sockaddr_in *sender, int32_t ifindex);
