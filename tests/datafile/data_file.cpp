#include "tests/datafile/data_file.h"

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace vu::test {

namespace {

uint32_t slowCrc(const std::string &bytes)
{
    uint32_t crc = 0xFFFFFFFF;
    for (const char byte : bytes) {
        crc ^= static_cast<uint8_t>(byte);
        for (int bit = 0; bit < 8; bit++)
            crc = crc >> 1 ^ (crc & 1 ? 0xEDB88320 : 0);
    }
    return ~crc;
}

} // namespace

std::vector<Block> wholeBlocks(const std::string &file, size_t &end)
{
    const auto word = [&](size_t at) {
        uint32_t value;
        std::memcpy(&value, &file[at], sizeof value);
        return __builtin_bswap32(value);
    };
    std::vector<Block> found;
    for (end = 0; file.size() - end >= 20; end += found.back().payload.size() + 20) {
        const size_t size = word(end);
        if (size < 20 || size > file.size() - end || word(end + size - 4) != size ||
            word(end + size - 8) != slowCrc(file.substr(end, size - 8)) || file.substr(end + 8, 4) != "KRD1")
            break;
        found.push_back({end, word(end + 4), file.substr(end + 12, size - 20)});
    }
    return found;
}

void DataFile::closeAll()
{
    KRDWriter_restore_writer();
    while (pipes.first)
        pipeDetachPipe(&pipes, pipes.first);
    for (KRDBuffer &record : records)
        free(record.buffer.buf);
    close(fd);
}

void DataFile::startOver(uint32_t index_room)
{
    closeAll();
    fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    std::memset(static_cast<void *>(records), 0, sizeof records);
    for (int32_t i = 0; i < 5; i++) {
        KRDBuffer &record = records[i];
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

std::vector<Block> DataFile::blocks() const
{
    const std::string bytes = file();
    size_t end;
    auto found = wholeBlocks(bytes, end);
    EXPECT_EQ(end, bytes.size()) << "the file does not end with a whole block";
    return found;
}

} // namespace vu::test
