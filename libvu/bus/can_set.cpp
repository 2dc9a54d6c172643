#include "libvu/bus/can_set.h"

#include <bit>
#include <cstring>
#include <optional>

#include "libvu/bus/bit_field_private.h"
#include "libvu/bus/growing_array_private.h"
#include "libvu/bus/signal_stanza_private.h"
#include "libvu/bus/time_only_private.h"
#include "libvu/core/callbacks.h"
#include "libvu/core/owned_private.h"
#include "libvu/core/report.h"
#include "libvu/core/saturate_private.h"
#include "libvu/core/stanza_private.h"
#include "libvu/time/sequentializer_private.h"

using libvu::ByteOrder;

namespace {

constexpr uint32_t kPrefetchRecords = 8;
constexpr uint32_t kGroupsInCache = 200;
constexpr int32_t kRecordsFlow = 2;

template <ByteOrder order>
double extractUnsigned(const uint8_t *payload, uint32_t leftShift, uint32_t rightShift)
{
    return static_cast<double>(
        libvu::unsignedField(libvu::payloadWord<order>(payload), leftShift, rightShift));
}

template <ByteOrder order>
double extractSigned(const uint8_t *payload, uint32_t leftShift, uint32_t rightShift)
{
    return static_cast<double>(libvu::signedField(libvu::payloadWord<order>(payload), leftShift, rightShift));
}

template <ByteOrder order>
double extractFloat(const uint8_t *payload, uint32_t leftShift, uint32_t rightShift)
{
    const uint64_t field = libvu::unsignedField(libvu::payloadWord<order>(payload), leftShift, rightShift);
    return std::bit_cast<float>(static_cast<uint32_t>(field));
}

template <ByteOrder order>
double extractDouble(const uint8_t *payload, uint32_t, uint32_t)
{
    return std::bit_cast<double>(libvu::payloadWord<order>(payload));
}

struct Format {
    const char *name;
    ByteOrder order;
    CanExtract extract;
    CanExtract whole; // replaces `extract` for fields of exactly 64 bits; null in an integer format
};
const Format formats[] = {
    {"UMSB", ByteOrder::motorola, extractUnsigned<ByteOrder::motorola>, nullptr},
    {"ULSB", ByteOrder::intel, extractUnsigned<ByteOrder::intel>, nullptr},
    {"SMSB", ByteOrder::motorola, extractSigned<ByteOrder::motorola>, nullptr},
    {"SLSB", ByteOrder::intel, extractSigned<ByteOrder::intel>, nullptr},
    {"FMSB", ByteOrder::motorola, extractFloat<ByteOrder::motorola>, extractDouble<ByteOrder::motorola>},
    {"FLSB", ByteOrder::intel, extractFloat<ByteOrder::intel>, extractDouble<ByteOrder::intel>},
};

const Format *formatNamed(const char *name)
{
    for (const Format &format : formats)
        if (std::strcmp(format.name, name) == 0)
            return &format;
    return nullptr;
}

struct Field {
    CanExtract extract;
    uint32_t leftShift;
    uint32_t rightShift;
};

// None if the field does not lie within the payload; a format that uses no shifts has no position to check.
std::optional<Field> placeField(const Format &format, uint32_t start, uint32_t length)
{
    const bool whole = format.whole && length == 64;
    const int64_t left = format.order == ByteOrder::motorola ? int64_t{start / 8} * 8 + 7 - start % 8
                                                             : int64_t{64} - start - length;
    if (!whole && (left < 0 || left + length > 64))
        return std::nullopt;
    return Field{whole ? format.whole : format.extract, static_cast<uint32_t>(left), 64 - length};
}

// The low 32 bits of a JSON integer; any other number as near as 32 bits come to it.
uint32_t unsignedNumber(libvu::Json json)
{
    if (const auto integer = json.integer())
        return static_cast<uint32_t>(*integer);
    return libvu::saturated<uint32_t>(json.number().value_or(0.0));
}

struct SignalFree {
    void operator()(CanSetSignal *signal) const
    {
        std::free(signal->name);
        std::free(signal);
    }
};
using OwnedSignal = std::unique_ptr<CanSetSignal, SignalFree>;

bool readField(const libvu::Stanza &stanza, CanSetSignal &signal)
{
    const libvu::Json start = stanza.root().member("db_bit_start");
    const libvu::Json length = stanza.root().member("db_bit_length");
    const char *name = stanza.text("db_data_format");
    const Format *format = name ? formatNamed(name) : nullptr;
    if (!start.number() || !length.number() || !format)
        return false;
    const auto field = placeField(*format, unsignedNumber(start), unsignedNumber(length));
    if (!field)
        return false;
    signal.extract = field->extract;
    signal.left_shift = field->leftShift;
    signal.right_shift = field->rightShift;
    return true;
}

// The mode field is there if its format is.
bool readMode(const libvu::Stanza &stanza, CanSetSignal &signal)
{
    const libvu::Json root = stanza.root();
    signal.mode_value = unsignedNumber(root.member("db_mode_value"));
    const char *name = stanza.text("db_mode_format");
    if (!name)
        return true;
    const Format *format = formatNamed(name);
    if (!format || format->whole)
        return false;
    const auto field = placeField(*format, unsignedNumber(root.member("db_mode_start")),
                                  unsignedNumber(root.member("db_mode_length")));
    if (!field)
        return false;
    signal.mode_extract = field->extract;
    signal.mode_left_shift = field->leftShift;
    signal.mode_right_shift = field->rightShift;
    return true;
}

bool makeSequentializer(const libvu::Stanza &stanza, CanSetSignal &signal)
{
    const auto invalid = stanza.number("invalid_data_output_value");
    const auto stale = stanza.number("stale_data_expiration_time");
    const auto sampleRate = stanza.number("sample_rate");
    const auto pipeRate = stanza.number("pipe_rate");
    if (!invalid || !stale || !sampleRate || !pipeRate)
        return false;
    signal.sequentializer =
        createSequentializer(signal.element_size, *pipeRate, *sampleRate, *stale, *invalid);
    if (!signal.sequentializer)
        return false;
    signal.sequentializer->pipes = &signal.pipes;
    return true;
}

// The Sequentializer comes last, so that no later failure has to release it.
bool configure(const libvu::Stanza &stanza, CanSetSignal &signal)
{
    const char *name = stanza.text("name");
    const auto scale = stanza.number("scale");
    const auto offset = stanza.number("offset");
    const char *dataType = stanza.text("data_type");
    if (!name || !scale || !offset || !dataType)
        return false;
    asprintf_or_die(&signal.name, "%s", name);
    signal.scale = *scale;
    signal.offset = *offset;
    signal.rezero_offset = stanza.number("rezero_offset", 0.0);
    signal.element_size = libvu::elementSizeOf(dataType);
    signal.state = kRecordsFlow;
    return signal.element_size != 0 && readField(stanza, signal) && readMode(stanza, signal) &&
           makeSequentializer(stanza, signal);
}

void reportShortMemory()
{
    libvuError("Unable to allocate memory for CAN set");
}

// The group of an identifier and mask, new if there was none; null if memory is short.
CanSetGroup *groupOf(CanSet &set, uint32_t id, uint32_t mask)
{
    for (uint32_t i = 0; i < set.group_count; i++)
        if (set.groups[i].id == id && set.groups[i].mask == mask)
            return &set.groups[i];
    if (!libvu::makeRoom(set.groups, set.group_capacity, set.group_count))
        return nullptr;
    CanSetGroup *group = &set.groups[set.group_count++];
    *group = CanSetGroup{id, mask, 0, 0, nullptr};
    return group;
}

// A multiplexed signal whose mode field holds another value takes neither value nor time.
inline void decode(CanSetSignal &signal, const uint8_t *payload, libvu::Moment time)
{
    if (signal.mode_extract &&
        signal.mode_extract(payload, signal.mode_left_shift, signal.mode_right_shift) != signal.mode_value)
        return;
    const double raw = signal.extract(payload, signal.left_shift, signal.right_shift);
    if (signal.rezero_pending && libvuRezeroCallback) {
        signal.rezero_offset = raw * signal.scale + signal.offset;
        libvuRezeroCallback(signal.name, signal.rezero_offset);
        signal.rezero_pending = 0;
    }
    // The callback may have set a scale or an offset of its own.
    libvu::takeValue(*signal.sequentializer, time, raw * signal.scale + signal.offset - signal.rezero_offset);
}

inline void prefetch(const void *record, size_t size)
{
    const auto *bytes = static_cast<const char *>(record);
    for (size_t at = 0; at < size; at += 64)
        __builtin_prefetch(bytes + at);
    __builtin_prefetch(bytes + size - 1);
}

// The records of a large set do not fit the caches, so those of a message are prefetched together, following
// one level of pointers after the other, before the first is needed.
void prefetchSignals(const CanSetGroup &group)
{
    for (uint32_t k = 0; k < group.count; k++)
        prefetch(group.signals[k], sizeof(CanSetSignal));
    for (uint32_t k = 0; k < group.count; k++)
        prefetch(group.signals[k]->sequentializer, sizeof(Sequentializer));
    for (uint32_t k = 0; k < group.count; k++) {
        const Sequentializer *seq = group.signals[k]->sequentializer;
        prefetch(seq->clock, sizeof(SampleClock));
        if (seq->current_frame)
            prefetch(seq->current_frame, sizeof(Frame));
    }
}

void decodeRecord(const CanSet &set, const CanRecord &record, libvu::Moment time)
{
    const auto id = libvu::loadHost<uint32_t>(record.id);
    const CanSetBucket &bucket = set.buckets[get_bucket_id(id)];
    for (uint32_t i = 0; i < bucket.count; i++) {
        const CanSetGroup &group = *bucket.entries[i];
        if ((id & group.mask) != group.id)
            continue;
        if (set.group_count > kGroupsInCache)
            prefetchSignals(group);
        for (uint32_t k = 0; k < group.count; k++)
            decode(*group.signals[k], record.payload, time);
    }
}

void advanceAll(const CanSet &set, libvu::Moment time)
{
    for (uint32_t i = 0; i < set.group_count; i++)
        for (uint32_t k = 0; k < set.groups[i].count; k++)
            libvu::advanceSilent(*set.groups[i].signals[k], time);
}

} // namespace

uint32_t get_bucket_id(uint32_t id)
{
    return (id >> 24 & 0x1F) | (id >> 2 & 7) << 5;
}

CanSet *can_set_create(void)
{
    return libvu::makeZeroed<CanSet>().release();
}

CanSetSignal *can_set_add_signal(CanSet *set, const char *json)
{
    static char parserText[libvu::Stanza::kErrorSize];
    const libvu::Stanza stanza(json, parserText);
    if (!stanza.parsed()) {
        libvuError("Invalid CAN signal JSON: %s", parserText);
        return nullptr;
    }
    constexpr const char *kInvalid = "Invalid CAN signal JSON: missing or invalid parameters";
    const char *id = stanza.text("db_msg_id");
    if (!id) {
        libvuError("%s", kInvalid);
        return nullptr;
    }
    const char *mask = stanza.text("db_msg_mask");
    CanSetGroup *group =
        groupOf(*set, libvu::wireIdentifier(id), libvu::wireIdentifier(mask ? mask : "0xFFFFFFFF"));
    OwnedSignal signal(libvu::makeZeroedAtLine<CanSetSignal>().release());
    if (!group || !signal || !libvu::makeRoom(group->signals, group->capacity, group->count)) {
        reportShortMemory();
        return nullptr;
    }
    if (!configure(stanza, *signal)) {
        libvuError("%s", kInvalid);
        return nullptr;
    }
    return group->signals[group->count++] = signal.release();
}

void can_set_finalize(CanSet *set)
{
    bool complete = true;
    for (CanSetBucket &bucket : set->buckets)
        bucket.count = 0;
    for (uint32_t i = 0; i < set->group_count; i++) {
        CanSetGroup *group = &set->groups[i];
        for (uint32_t b = 0; b < CAN_SET_BUCKETS; b++) {
            if ((get_bucket_id(group->id) ^ b) & get_bucket_id(group->mask))
                continue;
            CanSetBucket &bucket = set->buckets[b];
            if (libvu::makeRoom(bucket.entries, bucket.capacity, bucket.count))
                bucket.entries[bucket.count++] = group;
            else
                complete = false;
        }
    }
    if (!complete)
        reportShortMemory();
}

void can_set_process(CanSet *set, void *records, uint32_t count)
{
    auto *batch = static_cast<CanRecord *>(records);
    for (uint32_t i = 0; i < count; i++) {
        CanRecord &record = batch[i];
        if (count - i > kPrefetchRecords)
            __builtin_prefetch(&record + kPrefetchRecords);
        const libvu::Moment time(libvu::toHostInPlace<int64_t>(record.timestamp));
        if (record.flags & CAN_RECORD_TIME_ONLY)
            advanceAll(*set, time);
        else
            decodeRecord(*set, record, time);
    }
}

void can_set_destroy(CanSet *set)
{
    for (uint32_t i = 0; i < set->group_count; i++) {
        CanSetGroup &group = set->groups[i];
        for (uint32_t k = 0; k < group.count; k++)
            std::free(group.signals[k]);
        std::free(group.signals);
    }
    std::free(set->groups);
    for (const CanSetBucket &bucket : set->buckets)
        std::free(bucket.entries);
    *set = CanSet{}; // destroying an empty set once more is harmless
}
