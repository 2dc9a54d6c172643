#include "libvu/datafile/storage_table_private.h"

#include <algorithm>
#include <limits>

#include "libvu/core/wire_private.h"
#include "libvu/datafile/quantise_private.h"

namespace libvu {

namespace {

// Quotients taken at a time: they stay in the first-level cache until they are stored.
constexpr size_t kBatch = 512;

template <typename T>
constexpr Rounding kRoundingOf = std::is_integral_v<T> ? Rounding::halfAwayFromZero : Rounding::none;

template <typename T>
T stored(double quotient)
{
    if constexpr (std::is_integral_v<T>)
        return storedInteger<T>(quotient);
    else
        return static_cast<T>(quotient);
}

template <typename T>
T quantised(const KRDBuffer *record, double value)
{
    return stored<T>(quotient<kRoundingOf<T>>(value, quantisationFor<T>(record->scale, record->offset)));
}

// Runs `store` over the quotients of all values, a batch at a time, until it says false.
template <typename Source, typename T, typename Store>
bool inBatches(const Conversion &conversion, const uint8_t *values, size_t count, Store store)
{
    const Quantisation by = quantisationFor<T>(conversion.record->scale, conversion.record->offset);
    double batch[kBatch];
    while (count > 0) {
        const size_t taken = std::min(count, kBatch);
        quotients<Source, kRoundingOf<T>>(batch, values, taken, by);
        if (!store(batch, taken))
            return false;
        values += taken * sizeof(Source);
        count -= taken;
    }
    return true;
}

struct Plain {
    template <typename T>
    static int32_t convert(const KRDBuffer *record, void *target, double value)
    {
        if constexpr (std::is_floating_point_v<T>)
            storeHost(target, static_cast<T>(value));
        else
            storeHost(target, quantised<T>(record, value));
        return -static_cast<int32_t>(sizeof(T));
    }

    template <typename Source, typename T>
    static const char *batch(Conversion &conversion, const uint8_t *values, size_t count)
    {
        Frame *frame = conversion.frame;
        // A frame filled to the brim counts as overrun: a batch takes half of it.
        if (frame->length + count >= frame->capacity)
            return kOverrun;
        if constexpr (std::is_floating_point_v<T>)
            storeFloats<Source, T>(conversion, values, count);
        else
            storeIntegers<Source, T>(conversion, values, count);
        frame->length += static_cast<uint32_t>(count);
        return nullptr;
    }

private:
    template <typename Source, typename T>
    static void storeFloats(Conversion &conversion, const uint8_t *values, size_t count)
    {
        for (size_t i = 0; i < count; i++)
            storeHost(conversion.cursor + i * sizeof(T),
                      static_cast<T>(loadHost<Source>(values + i * sizeof(Source))));
        conversion.cursor += count * sizeof(T);
    }

    template <typename Source, typename T>
    static void storeIntegers(Conversion &conversion, const uint8_t *values, size_t count)
    {
        inBatches<Source, T>(conversion, values, count, [&](const double *rounded, size_t taken) {
            storeEach<T>(conversion.cursor, rounded, taken);
            conversion.cursor += taken * sizeof(T);
            return true;
        });
    }

    template <typename T>
    static void storeEach(uint8_t *__restrict to, const double *__restrict rounded, size_t count)
    {
        for (size_t i = 0; i < count; i++)
            storeHost(to + i * sizeof(T), stored<T>(rounded[i]));
    }
};

// A pair as it lies in the file.
template <typename T>
struct Run {
    T count;
    T value;

    // False: the sample belongs to a run of its own.
    bool takes(T sample)
    {
        if (count == 0)
            value = sample;
        // A float has no largest count; a NaN is not even equal to itself, and leaves a run of none.
        const bool full = std::is_integral_v<T> && count == std::numeric_limits<T>::max();
        if (full || !(sample == value))
            return false;
        count = static_cast<T>(count + 1);
        return true;
    }
};

struct Runs {
    template <typename T>
    static int32_t convert(const KRDBuffer *record, void *target, double value)
    {
        const T sample = quantised<T>(record, value);
        auto run = loadHost<Run<T>>(target);
        const bool joined = run.takes(sample);
        storeHost(target, run);
        if (joined)
            return 0;
        storeHost(static_cast<uint8_t *>(target) + sizeof run, Run<T>{1, sample});
        return sizeof run;
    }

    template <typename Source, typename T>
    static const char *batch(Conversion &conversion, const uint8_t *values, size_t count)
    {
        Frame *frame = conversion.frame;
        // Room for the open run and one that is still to come is kept free at the end.
        const int64_t most = int64_t{frame->capacity} - 2;
        if (most < 0)
            return kOverrun;
        auto run = loadHost<Run<T>>(conversion.cursor);
        const auto store = [&](const double *quotients, size_t taken) {
            for (size_t i = 0; i < taken; i++) {
                const T sample = stored<T>(quotients[i]);
                if (run.takes(sample))
                    continue;
                storeHost(conversion.cursor, run);
                conversion.cursor += sizeof run;
                frame->length += 2;
                if (frame->length >= most)
                    return false;
                run = {1, sample};
            }
            return true;
        };
        if (!inBatches<Source, T>(conversion, values, count, store))
            return "RLE channel is too random for RLE encoding.";
        storeHost(conversion.cursor, run);
        return nullptr;
    }
};

template <typename Source, typename Encoding, typename... Targets>
constexpr void fill(StorageEntry *at)
{
    ((*at++ = {{Encoding::template convert<Targets>, sizeof(Targets)},
               Encoding::template batch<Source, Targets>}),
     ...);
}

template <typename Source, typename Encoding>
constexpr void fillGroup(StorageEntry *at)
{
    using OtherWidth = std::conditional_t<sizeof(Source) == 8, float, double>;
    fill<Source, Encoding, OtherWidth, uint8_t, int8_t, uint16_t, int16_t, uint32_t, int32_t, uint64_t,
         int64_t>(at);
}

constexpr auto makeTable()
{
    std::array<StorageEntry, kStorageConvertors> table{};
    fillGroup<double, Plain>(&table[kBare64]);
    fillGroup<double, Plain>(&table[kMessage64]);
    fillGroup<float, Plain>(&table[kBare32]);
    fillGroup<float, Plain>(&table[kMessage32]);
    fillGroup<double, Runs>(&table[kBare64 + kRunsBehindPlain]);
    fillGroup<float, Runs>(&table[kBare32 + kRunsBehindPlain]);
    return table;
}

} // namespace

constinit const std::array<StorageEntry, kStorageConvertors> storage_convertors = makeTable();

} // namespace libvu
