#include <algorithm>
#include <charconv>
#include <cmath>
#include <fmt/format.h>
#include <limits>
#include <utility>

#include "vu/command.h"
#include "vu/source/can/can_frame.h"
#include "vu/source/sim/sim.h"

namespace vu {

namespace {

template <class T>
T saturated(double value)
{
    using Limits = std::numeric_limits<T>;
    if (std::isnan(value))
        return 0;
    if (value <= static_cast<double>(Limits::min()))
        return Limits::min();
    if (value >= static_cast<double>(Limits::max()))
        return Limits::max();
    return static_cast<T>(std::round(value));
}

CanFrame parseId(const std::string &text)
{
    CanFrame frame;
    const std::string_view digits = std::string_view(text).substr(text.starts_with("0x") ? 2 : 0);
    const auto [end, error] = std::from_chars(digits.data(), digits.data() + digits.size(), frame.id, 16);
    frame.extended = digits.size() == 8;
    if (error != std::errc{} || end != digits.data() + digits.size() ||
        frame.id > (frame.extended ? 0x1FFFFFFFu : 0x7FFu))
        throw InputError(fmt::format(
            "--can-ids: expected hexadecimal numbers up to 7FF, or of 8 digits up to 1FFFFFFF, got '{}'",
            text));
    return frame;
}

template <class T>
void put(CanFrame &frame, size_t at, T value)
{
    std::memcpy(frame.data.data() + at, &value, sizeof value);
}

class CanProducer : public SteppedProducer {
public:
    CanProducer(const SimOptions &sim, const ServeOptions &serving)
        : SteppedProducer(serving.duration), times_(sim.rate, sim.jitter, serving.seed),
          waveform_(sim.waveform)
    {
        for (const std::string &id : sim.canIds)
            frames_.push_back(parseId(id));
    }

private:
    void step(WireWriter &wire, int64_t, int64_t end) override
    {
        wire.beginRecord();
        for (; times_.nominal(next_) < end; ++next_) {
            double value = waveform_.at(next_, times_.rate());
            for (CanFrame &frame : frames_) {
                const auto hundredths = saturated<int16_t>(value * 100.0);
                put(frame, 0, hundredths);
                put(frame, 2, reversed(hundredths));
                put(frame, 4, static_cast<float>(value));
                frame.length = 8;
                writeCan(wire, times_.at(next_), frame);
                account_.made();
                value += 1.0;
            }
        }
        writeCanTime(wire, end);
        wire.endRecord();
    }

    MessageTimes times_;
    Waveform waveform_;
    std::vector<CanFrame> frames_;
    uint64_t next_ = 0;
};

using PutXcp = void (*)(WireWriter &, double, Endian);

template <class T>
void putInteger(WireWriter &wire, double value, Endian order)
{
    wire.value(saturated<T>(value), order);
}

template <class T>
void putFloat(WireWriter &wire, double value, Endian order)
{
    wire.value(static_cast<T>(value), order);
}

constexpr std::pair<const char *, PutXcp> kXcpTypes[] = {
    {"UBYTE", putInteger<uint8_t>},     {"SBYTE", putInteger<int8_t>},    {"UWORD", putInteger<uint16_t>},
    {"SWORD", putInteger<int16_t>},     {"ULONG", putInteger<uint32_t>},  {"SLONG", putInteger<int32_t>},
    {"A_UINT64", putInteger<uint64_t>}, {"A_INT64", putInteger<int64_t>}, {"FLOAT32_IEEE", putFloat<float>},
    {"FLOAT64_IEEE", putFloat<double>},
};

class XcpProducer : public SteppedProducer {
public:
    XcpProducer(const SimOptions &sim, const ServeOptions &serving)
        : SteppedProducer(serving.duration), times_(sim.rate, sim.jitter, serving.seed),
          waveform_(sim.waveform)
    {
        if (sim.xcpByteOrder != "little" && sim.xcpByteOrder != "big")
            throw InputError(
                fmt::format("--xcp-byte-order: expected big or little, got '{}'", sim.xcpByteOrder));
        order_ = sim.xcpByteOrder == "big" ? Endian::Big : Endian::Little;
        for (const std::string &type : sim.xcpTypes) {
            const auto *row = std::find_if(std::begin(kXcpTypes), std::end(kXcpTypes),
                                           [&](const auto &known) { return type == known.first; });
            if (row == std::end(kXcpTypes))
                throw InputError(fmt::format("--xcp-types: '{}' is no xcp_data_type", type));
            measurements_.push_back(row->second);
        }
    }

private:
    void step(WireWriter &wire, int64_t, int64_t end) override
    {
        for (; times_.nominal(next_) < end; ++next_) {
            double value = waveform_.at(next_, times_.rate());
            account_.made();
            wire.beginRecord();
            wire.big(times_.at(next_));
            for (size_t i = 0; i < measurements_.size(); ++i) {
                wire.big(static_cast<uint16_t>(i));
                measurements_[i](wire, value + static_cast<double>(i), order_);
            }
            wire.endRecord();
        }
        wire.timed(end, "\xFF"); // no value, only the news that time got so far
    }

    MessageTimes times_;
    Waveform waveform_;
    Endian order_ = Endian::Little;
    std::vector<PutXcp> measurements_;
    uint64_t next_ = 0;
};

} // namespace

std::unique_ptr<Producer> simulateCan(const SimOptions &sim, const ServeOptions &serving)
{
    return std::make_unique<CanProducer>(sim, serving);
}

std::unique_ptr<Producer> simulateXcp(const SimOptions &sim, const ServeOptions &serving)
{
    return std::make_unique<XcpProducer>(sim, serving);
}

} // namespace vu
