/* One CAN message as it comes over a channel's connection and as it is in frames: 21 bytes, no gaps
 * between records, so nothing in it is aligned.
 *
 * The timestamp is big-endian on the wire; canProcessSignals() and can_set_process() turn it to host order in
 * place, so a batch goes through one of them once. The identifier stays in wire order everywhere. */
#ifndef LIBVU_BUS_CAN_RECORD_H
#define LIBVU_BUS_CAN_RECORD_H

#include <stddef.h>
#include <stdint.h>

#include "libvu/core/export.h"

typedef struct CanRecord CanRecord;
struct CanRecord {
    uint8_t timestamp[8]; /* ticks of 25 ns since the start of the test, signed */
    uint8_t id[4];        /* CAN identifier, big-endian */
    uint8_t payload[8];
    uint8_t flags; /* CAN_RECORD_TIME_ONLY; the other bits are not read */
};
static_assert(offsetof(CanRecord, id) == 8 && offsetof(CanRecord, payload) == 12 &&
                  offsetof(CanRecord, flags) == 20 && sizeof(CanRecord) == 21,
              "CanRecord layout");

enum {
    CAN_RECORD_TIME_ONLY = 0x20, /* no message, only the news that time has reached the timestamp */
};

#endif
