#include "tests/support/krd_builder.h"

#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdexcept>
#include <unistd.h>

#include "tests/support/temp_dir.h"

namespace vu::test {

namespace {

bool isPlainFloat(const TestChannel &channel)
{
    return !channel.rle && channel.element.starts_with("float");
}

template <typename T>
std::string bytesOf(T value)
{
    return {reinterpret_cast<const char *>(&value), sizeof value};
}

std::string bigTick(int64_t tick)
{
    return bytesOf(__builtin_bswap64(static_cast<uint64_t>(tick)));
}

void apply(const KrdBuilder::Changes &changes, KrdBuilder::Json &json)
{
    for (const auto &[place, value] : changes)
        json[KrdBuilder::Json::json_pointer(place)] = value;
}

} // namespace

const std::vector<TestChannel> kEveryKind = {
    {.name = "plain"},
    {.name = "wide", .element = "float64", .size = 8, .rate = 12.5},
    {.name = "packed", .element = "int16", .size = 2, .scale = 0.5, .offset = 10.0},
    {.name = "flag", .element = "uint8", .size = 1, .rle = true, .unit = ""},
    {.name = "can0", .kind = "message_can", .element = "can", .size = 21},
    {.name = "gps", .kind = "message_raw", .element = "bytes", .size = 0},
    {.name = "raw/1", .kind = "message_raw", .element = "bytes", .size = 0},
    {.name = "mode", .kind = "message_text", .element = "bytes", .size = 0},
    {.name = "temp", .kind = "message_float", .element = "float32", .size = 12},
    {.name = "ntp", .kind = "message_float_ntp", .element = "float32", .size = 12},
};

KrdBuilder::KrdBuilder(std::filesystem::path path, std::vector<TestChannel> channels, uint32_t indexRoom,
                       const Changes &changes)
    : path_(std::move(path)), channels_(std::move(channels)), stored_(channels_.size(), 0),
      fd_(open(path_.c_str(), O_CREAT | O_TRUNC | O_RDWR | O_APPEND, 0600)),
      records_(std::make_unique<KRDBuffer[]>(channels_.size() + 2))
{
    if (fd_ < 0)
        throw std::runtime_error("no test file at " + path_.string());
    Json json = Json::parse(R"({"format":"krd","version":1,"test":"t","start_time":"2026-03-15T10:15:30.0",
        "ticks_per_second":40000000,"channels":[]})");
    for (size_t i = 0; i < channels_.size(); ++i) {
        const TestChannel &channel = channels_[i];
        const bool periodic = channel.kind == "sequential";
        KRDBuffer &record = records_[i];
        prepare(record, static_cast<uint32_t>(i + 2), 0);
        record.pipe = pipeAttachPipe(&pipes_);
        record.index = &records_[channels_.size()];
        record.uniform_frames = 1;
        record.scale = channel.scale;
        record.offset = channel.offset;
        record.block_type = periodic && isPlainFloat(channel) ? KRD_BLOCK_RUNNING : KRD_BLOCK_START;
        if (periodic && !isPlainFloat(channel))
            KRDBuffer_set_storage_convert(&record, "sequential_float64",
                                          ("sequential_" + channel.element).c_str(), 0,
                                          channel.rle ? "rle" : nullptr);
        json["channels"].push_back(Json::parse(fmt::format(
            R"({{"group":{},"name":"{}","kind":"{}","sample_rate":{},"element":"{}","element_size":{},"encoding":"{}",)"
            R"("scale":{},"offset":{},"unit":"{}","block_type":{},"has_position":true}})",
            i + 2, channel.name, channel.kind, periodic ? channel.rate : 0.0, channel.element, channel.size,
            channel.rle ? "rle" : "plain", channel.scale, channel.offset, channel.unit, record.block_type)));
    }
    apply(changes, json);
    prepare(records_[channels_.size()], KRD_GROUP_INDEX, indexRoom);
    prepare(records_[channels_.size() + 1], KRD_GROUP_CATALOGUE, 16);
    loose(KRD_GROUP_CATALOGUE, json.dump());
    records_[channels_.size()].file_offset = std::filesystem::file_size(path_);
}

KrdBuilder::~KrdBuilder()
{
    for (size_t i = 0; i < channels_.size(); ++i)
        pipeDetachPipe(&pipes_, records_[i].pipe);
    for (size_t i = 0; i < channels_.size() + 2; ++i)
        free(records_[i].buffer.buf);
    ::close(fd_);
}

void KrdBuilder::prepare(KRDBuffer &record, uint32_t group, uint32_t room)
{
    record.fd = fd_;
    record.group = static_cast<int32_t>(group);
    record.name = "record";
    record.iov[0] = {&record.block_size_word, KRD_HEADER_SIZE};
    record.group_word = __builtin_bswap32(group);
    std::memcpy(&record.tag_word, KRD_TAG, sizeof record.tag_word);
    record.sample_limit = -1;
    if (room > 0)
        membufInitialize(&record.buffer, room, nullptr, 0);
}

void KrdBuilder::flush(size_t channel, const void *data, uint32_t count, uint32_t elementSize, int64_t start)
{
    Frame *frame = frameCreate(count, elementSize, nullptr);
    std::memcpy(frame->data, data, size_t{count} * elementSize);
    frame->length = count;
    frame->start = start;
    KRDBuffer &record = records_[channel];
    record.position = start;
    pipeAddFrame(record.pipe, frame);
    KRDWriter_flush_these(0, 1, &record, 1);
}

void KrdBuilder::samples(size_t channel, const std::vector<double> &values, int64_t start)
{
    const auto count = static_cast<uint32_t>(values.size());
    stored_[channel] += count;
    if (isPlainFloat(channels_[channel]) && channels_[channel].element == "float32") {
        const std::vector<float> narrow(values.begin(), values.end());
        flush(channel, narrow.data(), count, sizeof(float), start);
    } else {
        flush(channel, values.data(), count, sizeof(double), start);
    }
}

void KrdBuilder::messages(size_t channel, const std::string &elements, uint64_t count, int64_t start)
{
    stored_[channel] += count;
    flush(channel, elements.data(), static_cast<uint32_t>(elements.size()), 1, start);
}

void KrdBuilder::loose(uint32_t group, const std::string &payload)
{
    KRDBuffer &record = records_[channels_.size() + 1];
    record.group_word = __builtin_bswap32(group);
    KRDBuffer_append(&record, payload.data(), static_cast<uint32_t>(payload.size()));
    KRDBuffer_flush(&record, 1);
}

void KrdBuilder::close(const Changes &changes)
{
    KRDBuffer_flush(&records_[channels_.size()], 1);
    Json closing =
        Json::parse(R"({"format":"krd-closing","version":1,"end":"stopped","seconds":1.5,"ledger":[],
        "events":[],"index_blocks":[]})");
    for (size_t i = 0; i < channels_.size(); ++i)
        closing["ledger"].push_back(Json::parse(fmt::format(
            R"({{"group":{},"name":"{}","received":{},"stored":{},"discarded":{{"limit":1,"unfinished":2}}}})",
            i + 2, channels_[i].name, stored_[i] + 3, stored_[i])));
    const std::vector<uint8_t> file = bytes();
    const auto word = [&file](size_t at) {
        uint32_t value;
        std::memcpy(&value, &file[at], sizeof value);
        return __builtin_bswap32(value);
    };
    for (size_t at = 0; at < file.size(); at += word(at)) {
        if (word(at + 4) == KRD_GROUP_INDEX)
            closing["index_blocks"].push_back(at);
    }
    apply(changes, closing);
    loose(KRD_GROUP_CATALOGUE, closing.dump());
}

std::vector<uint8_t> KrdBuilder::bytes() const
{
    return readBytes(path_);
}

std::string canElement(int64_t tick, uint32_t id, uint8_t flags, const std::string &data)
{
    std::string padded = data;
    padded.resize(8);
    return bytesOf(tick) + bytesOf(__builtin_bswap32(id)) + padded + static_cast<char>(flags);
}

std::string bytesElement(int64_t tick, const std::string &text)
{
    return bytesOf(static_cast<uint32_t>(8 + text.size())) + bytesOf(tick) + text;
}

std::string floatElement(int64_t tick, float value, bool ntp)
{
    return (ntp ? bytesOf(tick) : bigTick(tick)) + bytesOf(value);
}

void buildEverything(KrdBuilder &file, int64_t first)
{
    for (int round = 0; round < 4; ++round) {
        const int64_t tick = 40'000'000 * round;
        file.samples(0, std::vector<double>(300, 0.1 + round), first + 300 * round);
        file.samples(1, {1.0 / 3, -2e300, 0.0}, 3 * round);
        file.samples(2, std::vector<double>(200, 12.0 - round), 200 * round);
        file.samples(3, {1, 1, 1, 0, 0}, 5 * round);
        file.messages(
            4, canElement(tick + 1, 0x123, 3, "abc") + canElement(tick + 400, 0x18FEF100, 0x88, "12345678"),
            2, 0);
        file.messages(5, bytesElement(tick, "$GPGGA,1\r\n"), 1, tick);
        file.messages(6, bytesElement(tick, std::string("\0\xFF", 2)), 1, tick);
        file.messages(7, bytesElement(tick, "say \"3D\""), 1, tick);
        file.messages(8, floatElement(tick, 20.5F) + floatElement(tick + 1, -0.1F), 2, tick);
        file.messages(9, floatElement(tick + 7, 1e-7F, true), 1, 0);
    }
    file.close();
}

} // namespace vu::test
