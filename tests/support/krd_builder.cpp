#include "tests/support/krd_builder.h"

#include <cstring>
#include <fcntl.h>
#include <map>
#include <unistd.h>

#include "libvu/core/wire_private.h"

namespace vu::test {

std::string everyKind()
{
    return readText(VU_SOURCE_DIR "/tests/support/every_kind.json");
}

KrdBuilder::KrdBuilder(std::filesystem::path file, const std::string &channels, const Json &changes,
                       uint32_t indexRoom)
    : path(std::move(file)), channels_(Json::parse(channels)), stored_(channels_.size()),
      fd_(open(path.c_str(), O_CREAT | O_TRUNC | O_RDWR | O_APPEND, 0600)), records_(channels_.size() + 2)
{
    for (uint32_t group = 0; group < records_.size(); ++group) {
        KRDBuffer &record = records_[group];
        record.fd = fd_;
        record.group_word = __builtin_bswap32(group);
        record.name = "record";
        record.iov[0] = {&record.block_size_word, KRD_HEADER_SIZE};
        std::memcpy(&record.tag_word, KRD_TAG, sizeof record.tag_word);
        record.sample_limit = -1;
    }
    KRDBuffer &index = records_[KRD_GROUP_INDEX];
    membufInitialize(&index.buffer, indexRoom, nullptr, 0);
    for (size_t i = 0; i < channels_.size(); ++i) {
        Json channel =
            Json::parse(R"({"kind":"sequential","sample_rate":1000,"element":"float32","element_size":4,
            "encoding":"plain","scale":1,"offset":0,"unit":"V","has_position":true})");
        channel.update(channels_[i]);
        const std::string element = channel["element"], family = "sequential_";
        const bool runLength = channel["encoding"] == "rle", periodic = channel["kind"] == "sequential";
        const bool converted = periodic && (runLength || !element.starts_with("float"));
        KRDBuffer &record = records_[i + KRD_GROUP_FIRST_CHANNEL];
        record.pipe = pipeAttachPipe(&pipes_);
        record.index = &index;
        record.uniform_frames = 1;
        record.scale = channel["scale"];
        record.offset = channel["offset"];
        record.block_type = periodic && !converted ? KRD_BLOCK_RUNNING : KRD_BLOCK_START;
        if (converted)
            KRDBuffer_set_storage_convert(&record, "sequential_float64", (family + element).c_str(), 0,
                                          runLength ? "rle" : nullptr);
        channel["group"] = i + KRD_GROUP_FIRST_CHANNEL;
        channel["block_type"] = record.block_type;
        channels_[i] = channel;
    }
    Json json = {{"format", "krd"}, {"version", 1}, {"test", "t"}, {"start_time", "2026-03-15T10:15:30.0"}};
    json["ticks_per_second"] = 40'000'000;
    json["channels"] = channels_;
    catalogue(std::move(json), changes);
    index.file_offset = std::filesystem::file_size(path);
}

KrdBuilder::~KrdBuilder()
{
    while (pipes_.first)
        pipeDetachPipe(&pipes_, pipes_.first);
    for (const KRDBuffer &record : records_)
        free(record.buffer.buf);
    ::close(fd_);
}

void KrdBuilder::samples(size_t channel, const std::vector<double> &values, int64_t start)
{
    const bool narrow =
        channels_[channel]["block_type"] == KRD_BLOCK_RUNNING && channels_[channel]["element_size"] == 4;
    std::string bytes;
    for (const double value : values)
        bytes += narrow ? bytesOf(static_cast<float>(value)) : bytesOf(value);
    append(channel, bytes, values.size(), start, narrow ? 4 : 8);
}

void KrdBuilder::append(size_t channel, const std::string &bytes, uint64_t count, int64_t start,
                        uint32_t size)
{
    KRDBuffer &record = records_[channel + KRD_GROUP_FIRST_CHANNEL];
    Frame *frame = frameCreate(static_cast<uint32_t>(bytes.size()) / size, size, nullptr);
    bytes.copy(static_cast<char *>(frame->data), bytes.size());
    frame->length = frame->capacity;
    frame->start = record.position = start;
    pipeAddFrame(record.pipe, frame);
    KRDWriter_flush_these(0, 1, &record, 1);
    stored_[channel] += count;
}

void KrdBuilder::loose(uint32_t group, const std::string &payload)
{
    records_[0].group_word = __builtin_bswap32(group);
    KRDBuffer_append(&records_[0], payload.data(), static_cast<uint32_t>(payload.size()));
    KRDBuffer_flush(&records_[0], 1);
}

void KrdBuilder::catalogue(Json json, const Json &changes)
{
    for (const auto &[place, value] : changes.items())
        json[Json::json_pointer(place)] = value;
    loose(KRD_GROUP_CATALOGUE, json.dump());
}

void KrdBuilder::close(const Json &changes)
{
    KRDBuffer_flush(&records_[KRD_GROUP_INDEX], 1);
    Json closing =
        Json::parse(R"({"format":"krd-closing","version":1,"end":"stopped","seconds":1.5,"ledger":[],
        "events":[],"index_blocks":[]})");
    for (size_t i = 0; i < channels_.size(); ++i)
        closing["ledger"].push_back({{"group", i + KRD_GROUP_FIRST_CHANNEL},
                                     {"name", channels_[i]["name"]},
                                     {"received", stored_[i] + 3},
                                     {"stored", stored_[i]},
                                     {"discarded", {{"limit", 1}, {"unfinished", 2}}}});
    const std::vector<uint8_t> file = bytes();
    for (size_t at = 0; at < file.size(); at += libvu::loadBig<uint32_t>(&file[at]))
        if (libvu::loadBig<uint32_t>(&file[at + 4]) == KRD_GROUP_INDEX)
            closing["index_blocks"].push_back(at);
    catalogue(std::move(closing), changes);
}

std::string canElement(int64_t tick, uint32_t id, uint8_t flags, std::string data)
{
    data.resize(8);
    return bytesOf(tick, __builtin_bswap32(id)) + data + static_cast<char>(flags);
}

void buildEverything(KrdBuilder &file, int64_t first)
{
    const std::map<size_t, std::string> texts = {{5, "$GPGGA,1\r\n"}, {6, {"\0\xFF", 2}}, {7, "say \"3D\""}};
    for (int round = 0; round < 4; ++round) {
        const int64_t tick = 40'000'000 * round;
        file.samples(0, std::vector<double>(300, 0.1 + round), first + 300 * round);
        file.samples(1, {1.0 / 3, -2e300, 0.0}, 3 * round);
        file.samples(2, std::vector<double>(200, 12.0 - round), 200 * round);
        file.samples(3, {1, 1, 1, 0, 0}, 5 * round);
        file.append(
            4, canElement(tick + 1, 0x123, 3, "abc") + canElement(tick + 400, 0x18FEF100, 0x88, "12345678"),
            2, 0);
        for (const auto &[channel, text] : texts)
            file.append(channel, bytesOf(static_cast<uint32_t>(8 + text.size()), tick) + text, 1, tick);
        file.append(8, bytesOf(__builtin_bswap64(tick), 20.5F, __builtin_bswap64(tick + 1), -0.1F), 2, tick);
        file.append(9, bytesOf(tick + 7, 1e-7F), 1, 0);
    }
    file.close();
}

} // namespace vu::test
