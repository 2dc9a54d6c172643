#include "vu/source/serve/faults.h"

#include <charconv>
#include <cmath>
#include <fmt/format.h>
#include <limits>

#include "libvu/core/wire_format.h"
#include "vu/command.h"
#include "vu/support/random.h"

namespace vu {

namespace {

template <class T>
T number(std::string_view word, std::string_view text, T least)
{
    T value{};
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value);
    const bool whole = error == std::errc{} && end == text.data() + text.size();
    if (!whole || !(value >= least) || !(value <= std::numeric_limits<T>::max()))
        throw InputError(fmt::format("--faults: '{}': expected {}", word, FaultSpec::help()));
    return value;
}

void parseFault(std::string_view word, FaultSpec &spec)
{
    const size_t equals = word.find('=');
    const std::string_view name = word.substr(0, equals);
    const std::string_view text = equals == std::string_view::npos ? "" : word.substr(equals + 1);
    if (name == "split")
        spec.splitBytes = number<uint64_t>(word, text, 1);
    else if (name == "drop")
        spec.dropEvery = number<uint64_t>(word, text, 1);
    else if (name == "garble")
        spec.garbleEvery = number<uint64_t>(word, text, 1);
    else if (name == "close")
        spec.closeRecords = number<uint64_t>(word, text, 1);
    else if (name == "stall") {
        const size_t at = text.find('@');
        spec.stallSeconds = number<double>(word, text.substr(0, at), 0.0);
        if (at != std::string_view::npos)
            spec.stallAtSeconds = number<double>(word, text.substr(at + 1), 0.0);
    } else {
        throw InputError(fmt::format("--faults: '{}': expected {}", word, FaultSpec::help()));
    }
}

} // namespace

const char *FaultSpec::help()
{
    return "split=BYTES, stall=SECONDS[@START], drop=N, garble=N or close=RECORDS, joined by commas";
}

FaultSpec parseFaults(const std::string &text)
{
    FaultSpec spec;
    std::string_view rest = text;
    while (!rest.empty()) {
        const size_t comma = rest.find(',');
        parseFault(rest.substr(0, comma), spec);
        rest = comma == std::string_view::npos ? std::string_view{} : rest.substr(comma + 1);
    }
    return spec;
}

bool FaultyRecords::pass(const WireWriter &wire, std::vector<uint8_t> &out)
{
    size_t begin = 0;
    for (const size_t end : wire.ends()) {
        const std::span<const uint8_t> record = wire.bytes().subspan(begin, end - begin);
        begin = end;
        ++records_;
        if (spec_.closeRecords != 0 && records_ > spec_.closeRecords) {
            const auto half = record.first(record.size() / 2);
            out.insert(out.end(), half.begin(), half.end());
            return false;
        }
        if (spec_.dropEvery != 0 && records_ % spec_.dropEvery == 0) {
            ++dropped_;
            continue;
        }
        out.insert(out.end(), record.begin(), record.end());
        if (spec_.garbleEvery != 0 && records_ % spec_.garbleEvery == 0)
            garble(out.data() + out.size() - record.size(), record.size());
    }
    return true;
}

void FaultyRecords::garble(uint8_t *record, size_t size)
{
    // The length stays: a recorder that loses the framing could not show what it does with the content.
    constexpr size_t kLength = VU_LENGTH_BYTES;
    if (size <= kLength)
        return;
    ++garbled_;
    const uint64_t bits = randomBits(seed_, records_);
    record[kLength + (bits >> 3) % (size - kLength)] ^= static_cast<uint8_t>(1u << (bits & 7));
}

std::vector<std::string> FaultyRecords::notes() const
{
    std::vector<std::string> lines;
    if (dropped_ != 0)
        lines.push_back(fmt::format("faults: {} of {} records dropped", dropped_, records_));
    if (garbled_ != 0)
        lines.push_back(fmt::format("faults: {} of {} records garbled", garbled_, records_));
    return lines;
}

} // namespace vu
