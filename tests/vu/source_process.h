// A source in a process of its own, and its one reader, which is this test.
#pragma once

#include <algorithm>
#include <array>
#include <bit>
#include <filesystem>
#include <span>
#include <string>
#include <vector>

#include "tests/support/running_vu.h"
#include "vu/source/serve/wire_writer.h"

namespace vu::test {

using Bytes = std::vector<uint8_t>;
using Timed = std::pair<int64_t, std::string>; // ticks, and what was sent then

// The number at `at`, most significant byte first, or least.
template <class T>
T numberAt(std::span<const uint8_t> bytes, size_t at, bool big = true)
{
    std::array<uint8_t, sizeof(T)> parts;
    std::copy_n(bytes.begin() + static_cast<std::ptrdiff_t>(at), sizeof(T), parts.begin());
    if (big)
        std::reverse(parts.begin(), parts.end());
    return std::bit_cast<T>(parts);
}

enum class Socket { Unix, Tcp };

class Source : private TempDir, public RunningVu {
public:
    // Starts `vu source` with the words of `line` and an address of its own, or at `where`, and connects.
    explicit Source(const std::string &line, Socket kind = Socket::Unix, std::filesystem::path where = {});
    ~Source() { leave(); }

    Bytes read(size_t most = SIZE_MAX); // until the source has sent it all or so many bytes have come
    void say(const std::string &text);
    void leave(); // without a word
    int end() { return leave(), wait(); }

private:
    int socket_ = -1;
};

std::vector<std::string> words(const std::string &line);

struct Stream {
    bool bigEndian = false;
    std::vector<Bytes> records;
    Bytes rest; // of a record that was cut
};
Stream cut(std::span<const uint8_t> received); // fails the test without a marker
Stream cut(const WireWriter &wire);

// All that a source sends when nothing ends it early. Fails the test unless it ends with `status`.
Stream replay(const std::string &line, int status = 0, std::string *said = nullptr,
              Socket kind = Socket::Unix);

// Samples of a sequential channel.
template <class T>
std::vector<T> samplesOf(const Stream &stream)
{
    std::vector<T> samples;
    for (const Bytes &record : stream.records)
        for (size_t at = 8; at + sizeof(T) <= record.size(); at += sizeof(T))
            samples.push_back(numberAt<T>(record, at, stream.bigEndian));
    return samples;
}

// The reference of everything random: written apart from the code under test.
double referenceUnit(uint64_t seed, uint64_t n);

} // namespace vu::test
