// Data files for tests, written block by block by the library itself, so that a test knows where each lies.
#pragma once

#include <cstdint>
#include <filesystem>
#include <memory>
#include <nlohmann/json.hpp>
#include <string>
#include <vector>

#include "libvu/libvu.h"

namespace vu::test {

struct TestChannel {
    std::string name;
    std::string kind = "sequential";
    std::string element = "float32";
    uint32_t size = 4; // of an element
    double rate = 1000.0;
    bool rle = false;
    double scale = 1.0, offset = 0.0;
    std::string unit = "V";
};

class KrdBuilder {
public:
    using Json = nlohmann::ordered_json;
    using Changes = std::vector<std::pair<const char *, Json>>; // values by JSON pointer

    // Writes the catalogue at once, with `changes` that may spoil it. `indexRoom`: bytes of an index block.
    KrdBuilder(std::filesystem::path path, std::vector<TestChannel> channels, uint32_t indexRoom = 4096,
               const Changes &changes = {});
    ~KrdBuilder();
    KrdBuilder(const KrdBuilder &) = delete;
    KrdBuilder &operator=(const KrdBuilder &) = delete;

    // Each call is one block. `start` is the number of the first sample, or the time of the first message;
    // `count` is how many messages `elements` holds.
    void samples(size_t channel, const std::vector<double> &values, int64_t start);
    void messages(size_t channel, const std::string &elements, uint64_t count, int64_t start);
    // A block of any group that no index knows.
    void loose(uint32_t group, const std::string &payload);
    // Index and closing block, the latter with `changes`.
    void close(const Changes &changes = {});

    std::vector<uint8_t> bytes() const;
    const std::filesystem::path &path() const { return path_; }

private:
    void prepare(KRDBuffer &record, uint32_t group, uint32_t room);
    void flush(size_t channel, const void *data, uint32_t count, uint32_t elementSize, int64_t start);

    std::filesystem::path path_;
    std::vector<TestChannel> channels_;
    std::vector<uint64_t> stored_; // elements, by channel
    int fd_;
    PipeList pipes_ = {};
    std::unique_ptr<KRDBuffer[]> records_; // of the channels, then the index, then everything else
};

// Elements as they stand in blocks.
std::string canElement(int64_t tick, uint32_t id, uint8_t flags, const std::string &data);
std::string bytesElement(int64_t tick, const std::string &text);
std::string floatElement(int64_t tick, float value, bool ntp = false);

// A channel of each kind that a data file can hold.
extern const std::vector<TestChannel> kEveryKind;
// Four blocks of each and a proper end; "plain" begins at sample `first`.
void buildEverything(KrdBuilder &file, int64_t first = 0);

} // namespace vu::test
