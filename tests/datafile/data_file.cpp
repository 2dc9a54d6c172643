#include "tests/datafile/data_file.h"

#include <cstdlib>
#include <fcntl.h>
#include <unistd.h>

namespace vu::test {

namespace {

uint32_t bigAt(const std::string &bytes, size_t at)
{
    uint32_t value = 0;
    for (size_t i = at; i < at + 4; i++)
        value = value << 8 | static_cast<uint8_t>(bytes[i]);
    return value;
}

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

std::string bigEndian(uint64_t value, int bytes)
{
    std::string text;
    while (bytes-- > 0)
        text += static_cast<char>(value >> 8 * bytes);
    return text;
}

std::vector<Block> wholeBlocks(const std::string &file, size_t *end)
{
    std::vector<Block> found;
    size_t at = 0;
    while (file.size() - at >= 20) {
        const size_t size = bigAt(file, at);
        if (size < 20 || size > file.size() - at || bigAt(file, at + size - 4) != size ||
            bigAt(file, at + size - 8) != slowCrc(file.substr(at, size - 8)) ||
            file.substr(at + 8, 4) != "KRD1")
            break;
        found.push_back({at, bigAt(file, at + 4), file.substr(at + 12, size - 20)});
        at += size;
    }
    if (end)
        *end = at;
    return found;
}

DataFile::DataFile()
{
    std::memset(records, 0, sizeof records);
    startOver();
}

DataFile::~DataFile()
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
    KRDWriter_restore_writer();
    close(fd);
    fd = open(path.c_str(), O_CREAT | O_TRUNC | O_WRONLY | O_APPEND | O_CLOEXEC, 0600);
    while (pipes.first)
        pipeDetachPipe(&pipes, pipes.first);
    for (int32_t i = 0; i < 5; i++) {
        KRDBuffer &record = records[i];
        free(record.buffer.buf);
        std::memset(static_cast<void *>(&record), 0, sizeof record);
        record.idx = i;
        record.fd = fd;
        record.group = &record == &index ? 1 : i + 2;
        record.name = "vib";
        record.group_word = __builtin_bswap32(static_cast<uint32_t>(record.group));
        std::memcpy(&record.tag_word, KRD_TAG, 4);
        record.iov[0] = {&record.block_size_word, KRD_HEADER_SIZE};
        record.sample_limit = -1;
        record.uniform_frames = 1;
        record.scale = 1.0;
        if (&record != &index) {
            record.pipe = pipeAttachPipe(&pipes);
            record.index = &index;
        }
    }
    membufExpand(&index.buffer, index_room);
}

std::vector<Block> DataFile::blocks() const
{
    const std::string bytes = file();
    size_t end;
    auto found = wholeBlocks(bytes, &end);
    EXPECT_EQ(end, bytes.size()) << "the file does not end with a whole block";
    return found;
}

} // namespace vu::test
