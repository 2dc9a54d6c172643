// A data file, the records that write it, and a reader that shares no code with the writer.
#pragma once

#include <cstdint>
#include <cstring>
#include <gmock/gmock.h>
#include <gtest/gtest.h>
#include <string>
#include <vector>

#include "libvu/libvu.h"
#include "tests/support/error_trap.h"
#include "tests/support/interpose.h"
#include "tests/support/temp_dir.h"

namespace vu::test {

struct Block {
    uint64_t offset;
    uint32_t group;
    std::string payload;
    bool operator==(const Block &) const = default;
};

// The whole blocks at the head of a file; `end` is where they end.
std::vector<Block> wholeBlocks(const std::string &file, size_t &end);

template <typename T>
std::string bytesOf(const std::vector<T> &values)
{
    return {reinterpret_cast<const char *>(values.data()), values.size() * sizeof(T)};
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
    std::vector<Block> blocks() const; // of a file that has nothing else in it
    // An empty file, and records as a host begins with them: no position field, no limit, frames alike.
    void startOver(uint32_t index_room = 4096);
    void closeAll();

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
