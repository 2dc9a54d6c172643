// Data files for tests, written block by block by the library itself, so that a test knows where each lies.
#pragma once

#include <filesystem>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "libvu/libvu.h"
#include "tests/support/temp_dir.h"

namespace vu::test {

// These values as they lie in memory, one after the other.
std::string bytesOf(const auto &...values)
{
    std::string bytes;
    (bytes.append(reinterpret_cast<const char *>(&values), sizeof values), ...);
    return bytes;
}

class KrdBuilder {
public:
    using Json = nlohmann::ordered_json;

    // Writes the catalogue at once. `channels` is an array of what each has other than a sequential channel
    // of float32 at 1000 Hz; `changes` are values by JSON pointer that may spoil the catalogue, `indexRoom`
    // is how many bytes an index block holds.
    KrdBuilder(std::filesystem::path path, const std::string &channels, const Json &changes = {},
               uint32_t indexRoom = 4096);
    ~KrdBuilder();
    KrdBuilder(KrdBuilder &&) = delete;

    // Each call is one block. `start` is the number of the first sample, or the time of the first message;
    // `bytes` are `count` elements as they are in blocks, given to the writer in units of `size`.
    void samples(size_t channel, const std::vector<double> &values, int64_t start);
    void append(size_t channel, const std::string &bytes, uint64_t count, int64_t start, uint32_t size = 1);
    // A block of any group that no index knows.
    void loose(uint32_t group, const std::string &payload);
    // Index and closing block, the latter with `changes`.
    void close(const Json &changes = {});

    std::vector<uint8_t> bytes() const { return readBytes(path); }
    const std::filesystem::path path;

private:
    void catalogue(Json json, const Json &changes);

    std::vector<Json> channels_;   // entries of the catalogue
    std::vector<uint64_t> stored_; // elements, by channel
    int fd_;
    PipeList pipes_ = {};
    std::vector<KRDBuffer> records_; // by group; catalogue's writes all but index and channels
};

std::string canElement(int64_t tick, uint32_t id, uint8_t flags, std::string data);
// A channel of each kind that a data file can hold.
std::string everyKind();
// Four blocks of each and a proper end; "plain" begins at sample `first`.
void buildEverything(KrdBuilder &file, int64_t first = 0);

} // namespace vu::test
