// A data file, the records that write it, and a reader that shares no code with the writer.
#pragma once

#include <algorithm>
#include <cstring>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sstream>
#include <unistd.h>

#include "libvu/libvu.h"
#include "tests/support/error_trap.h"
#include "tests/support/interpose.h"
#include "tests/support/temp_dir.h"

namespace vu::test {

struct Block {
    uint64_t offset;
    uint32_t group;
    std::string payload;
    uint64_t end() const { return offset + payload.size() + 20; }
    bool operator==(const Block &) const = default;
};

inline uint32_t slowCrc(const std::string &bytes)
{
    uint32_t crc = 0xFFFFFFFF;
    for (const char byte : bytes) {
        crc ^= static_cast<uint8_t>(byte);
        for (int bit = 0; bit < 8; bit++)
            crc = crc >> 1 ^ (crc & 1 ? 0xEDB88320 : 0);
    }
    return ~crc;
}

// The complete blocks at the head of a file.
inline std::vector<Block> completeBlocks(const std::string &file)
{
    const auto word = [&](size_t at) {
        uint32_t value;
        std::memcpy(&value, &file[at], sizeof value);
        return __builtin_bswap32(value);
    };
    std::vector<Block> found;
    for (size_t at = 0; file.size() - at >= 20; at = found.back().end()) {
        const size_t size = word(at);
        if (size < 20 || size > file.size() - at || word(at + size - 4) != size ||
            word(at + size - 8) != slowCrc(file.substr(at, size - 8)) || file.substr(at + 8, 4) != "KRD1")
            break;
        found.push_back({at, word(at + 4), file.substr(at + 12, size - 20)});
    }
    return found;
}

template <typename T>
std::string bytesOf(const std::vector<T> &values)
{
    return {reinterpret_cast<const char *>(values.data()), values.size() * sizeof(T)};
}

inline std::string hexFrom(const std::string &bytes, size_t at)
{
    std::string text;
    for (size_t i = at; i < bytes.size() && i < at + 8; i++)
        text += "0123456789abcdef"[static_cast<uint8_t>(bytes[i]) / 16],
            text += "0123456789abcdef"[static_cast<uint8_t>(bytes[i]) % 16];
    return text;
}

// The first field in which one list of blocks differs from what was expected; empty for equal ones.
inline std::string difference(const std::vector<Block> &found, const std::vector<Block> &expected)
{
    const auto differ = [](size_t block, const std::string &field, auto is, auto wanted) {
        std::ostringstream text;
        text << "block " << block << ": " << field << " " << is << ", expected " << wanted;
        return text.str();
    };
    for (size_t i = 0; i < std::min(found.size(), expected.size()); i++) {
        const Block &is = found[i], &wanted = expected[i];
        if (is.offset != wanted.offset)
            return differ(i, "offset", is.offset, wanted.offset);
        if (is.group != wanted.group)
            return differ(i, "group", is.group, wanted.group);
        const auto end = std::min(is.payload.size(), wanted.payload.size());
        const auto at = static_cast<size_t>(
            std::mismatch(is.payload.begin(), is.payload.begin() + static_cast<std::ptrdiff_t>(end),
                          wanted.payload.begin())
                .first -
            is.payload.begin());
        if (at < end)
            return differ(i, "payload from byte " + std::to_string(at) + " on", hexFrom(is.payload, at),
                          hexFrom(wanted.payload, at));
        if (is.payload.size() != wanted.payload.size())
            return differ(i, "payload bytes", is.payload.size(), wanted.payload.size());
    }
    return found.size() == expected.size()
               ? ""
               : std::to_string(found.size()) + " blocks, expected " + std::to_string(expected.size());
}

class DataFile : public ::testing::Test {
protected:
    DataFile() { startOver(); }
    ~DataFile() override { closeAll(); }

    template <typename T>
    Frame *queue(KRDBuffer &record, const std::vector<T> &values, int64_t start = 0)
    {
        Frame *frame = frameCreate(static_cast<uint32_t>(values.size()), sizeof(T), nullptr);
        if (!frame)
            return nullptr;
        std::copy(values.begin(), values.end(), static_cast<T *>(frame->data));
        frame->length = frame->capacity;
        frame->start = start;
        frame->reserved = static_cast<uint64_t>(start) + 1000;
        pipeAddFrame(record.pipe, frame);
        return frame;
    }
    // The first four records are channels, groups 2 to 5, the last one is the index of all of them.
    void flushChannels(bool force = true) { KRDWriter_flush_these(0, 4, records, force); }
    std::string file() const { return readText(path); }
    // Of a file that has nothing else in it.
    std::vector<Block> blocks() const
    {
        auto found = completeBlocks(file());
        EXPECT_EQ(found.empty() ? 0 : found.back().end(), file().size()) << "a piece of one";
        return found;
    }
    // An empty file, and records as a host begins with them: no position field, no limit, frames alike.
    void startOver(uint32_t index_room = 4096)
    {
        closeAll();
        fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
        for (int32_t i = 0; i < 5; i++) {
            KRDBuffer &record = records[i] = {};
            record.idx = i;
            record.fd = fd;
            record.group = i < 4 ? i + 2 : 1;
            record.name = "vib";
            record.group_word = __builtin_bswap32(static_cast<uint32_t>(record.group));
            std::memcpy(&record.tag_word, KRD_TAG, 4);
            record.iov[0] = {&record.block_size_word, KRD_HEADER_SIZE};
            record.sample_limit = -1;
            record.uniform_frames = record.no_position = 1;
            record.scale = 1.0;
            record.pipe = i < 4 ? pipeAttachPipe(&pipes) : nullptr;
            record.index = i < 4 ? &index : nullptr;
        }
        membufExpand(&index.buffer, index_room);
    }
    void closeAll()
    {
        KRDWriter_restore_writer();
        while (pipes.first)
            pipeDetachPipe(&pipes, pipes.first);
        for (KRDBuffer &record : records)
            free(record.buffer.buf);
        close(fd);
    }

    TempDir folder;
    const std::string path = folder.path("data.krd");
    int fd = -1;
    ScopedCalls scope;
    ErrorTrap errors;
    LogTrap log;
    PipeList pipes = {};
    KRDBuffer records[5] = {};
    KRDBuffer &channel = records[0], &index = records[4];
};

} // namespace vu::test
