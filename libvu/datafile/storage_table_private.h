// The convertors: one sample at a time for records with a timestamp, a frame at a time for bare values.
#pragma once

#include <array>

#include "libvu/datafile/storage_convert.h"

namespace libvu {

// A converted frame in the making.
struct Conversion {
    const KRDBuffer *record;
    Frame *frame;    // its `length` counts what is stored for good, not the open run
    uint8_t *cursor; // where the next element goes, or the open run
};

// Converts `count` bare values. Null, or the text of why the frame cannot hold them.
using ConvertBatch = const char *(*)(Conversion &conversion, const uint8_t *values, size_t count);

struct StorageEntry : StorageConvertor {
    ConvertBatch batch;
};

// Groups of nine: float of the other width, then unsigned and signed integers of 8, 16, 32 and 64 bits.
enum StorageGroup : size_t {
    kBare64 = 1,
    kMessage64 = 10,
    kBare32 = 19,
    kMessage32 = 28,
    kRunsAfterPlain = 36, // from a plain group to its run-length group; those of messages are empty
    kStorageConvertors = 73,
};

extern const std::array<StorageEntry, kStorageConvertors> storage_convertors;

inline constexpr char kOverrun[] = "Storage datatype converted channel frame buffer overrun.";

} // namespace libvu
