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

// Calls `store` with the quotients of all values, a batch at a time, until it returns false.
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
        // A batch takes half of the frame, so that a full frame already shows that there was more than the
        // pipe said.
        if (frame->length + count >= frame->capacity)
            return kOverrun;
        if constexpr (std::is_floating_point_v<T>)
            convertFloats<Source, T>(conversion, values, count);
        else
            convertIntegers<Source, T>(conversion, values, count);
        frame->length += static_cast<uint32_t>(count);
        return nullptr;
    }

private:
    template <typename Source, typename T>
    static void convertFloats(Conversion &conversion, const uint8_t *values, size_t count)
    {
        for (size_t i = 0; i < count; i++)
            storeHost(conversion.cursor + i * sizeof(T),
                      static_cast<T>(loadHost<Source>(values + i * sizeof(Source))));
        conversion.cursor += count * sizeof(T);
    }

    template <typename Source, typename T>
    static void convertIntegers(Conversion &conversion, const uint8_t *values, size_t count)
    {
        inBatches<Source, T>(conversion, values, count, [&](const double *rounded, size_t taken) {
            storeIntegers<T>(conversion.cursor, rounded, taken);
            conversion.cursor += taken * sizeof(T);
            return true;
        });
    }
};

template <size_t kStep, typename T>
bool allEqual(const T *samples, T value)
{
    using Bits = std::conditional_t<std::is_integral_v<T>, T, unsigned>;
    Bits differs = 0;
    for (size_t k = 0; k < kStep; k++)
        if constexpr (std::is_integral_v<T>)
            differs = static_cast<T>(differs | (samples[k] ^ value));
        else
            differs |= static_cast<unsigned>(!(samples[k] == value));
    return differs == 0;
}

// How many samples at the head are equal to `value`. Most runs are longer than a step.
template <typename T>
size_t equalAtHead(const T *samples, size_t count, T value)
{
    constexpr size_t kLong = 16, kShort = 4;
    if (count == 0 || !(samples[0] == value))
        return 0;
    size_t equal = 1;
    while (equal + kLong <= count && allEqual<kLong>(samples + equal, value))
        equal += kLong;
    while (equal + kShort <= count && allEqual<kShort>(samples + equal, value))
        equal += kShort;
    while (equal < count && samples[equal] == value)
        equal++;
    return equal;
}

// A pair as it lies in the file.
template <typename T>
struct Run {
    T count;
    T value;

    // How many samples at the head join the run; the next one begins another.
    size_t take(const T *samples, size_t offered)
    {
        if (count == 0)
            value = samples[0];
        if constexpr (std::is_integral_v<T>) {
            const auto room =
                static_cast<uint64_t>(std::numeric_limits<T>::max()) - static_cast<uint64_t>(count);
            const size_t taken = equalAtHead(samples, std::min<uint64_t>(offered, room), value);
            count = static_cast<T>(count + static_cast<T>(taken));
            return taken;
        } else {
            // A count of floats stays where adding 1 no longer changes it. A NaN is not even equal to itself,
            // so that it leaves the open run with a count of 0.
            constexpr auto kMost = static_cast<double>(uint64_t{1} << std::numeric_limits<T>::digits);
            const size_t taken = equalAtHead(samples, offered, value);
            count = static_cast<T>(std::min(static_cast<double>(count) + static_cast<double>(taken), kMost));
            return taken;
        }
    }
};

struct Runs {
    template <typename T>
    static int32_t convert(const KRDBuffer *record, void *target, double value)
    {
        const T sample = quantised<T>(record, value);
        auto run = loadHost<Run<T>>(target);
        const bool joined = run.take(&sample, 1) == 1;
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
            T samples[kBatch];
            storeAll(samples, quotients, taken);
            size_t joined = run.take(samples, taken);
            while (joined < taken) {
                storeHost(conversion.cursor, run);
                conversion.cursor += sizeof run;
                frame->length += 2;
                if (frame->length >= most)
                    return false;
                run = {1, samples[joined++]};
                joined += run.take(samples + joined, taken - joined);
            }
            return true;
        };
        if (!inBatches<Source, T>(conversion, values, count, store))
            return "RLE channel is too random for RLE encoding.";
        storeHost(conversion.cursor, run);
        return nullptr;
    }

private:
    template <typename T>
    static void storeAll(T *samples, const double *quotients, size_t count)
    {
        if constexpr (std::is_integral_v<T>)
            storeIntegers<T>(reinterpret_cast<uint8_t *>(samples), quotients, count);
        else
            std::transform(quotients, quotients + count, samples, stored<T>);
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
    fillGroup<double, Runs>(&table[kBare64 + kRunsAfterPlain]);
    fillGroup<float, Runs>(&table[kBare32 + kRunsAfterPlain]);
    return table;
}

} // namespace

constinit const std::array<StorageEntry, kStorageConvertors> storage_convertors = makeTable();

} // namespace libvu
