#include "vu/source/can/candump_line.h"

#include <algorithm>
#include <charconv>

#include "vu/source/log_time.h"

namespace vu {

namespace {

using Kind = CandumpLine::Kind;

constexpr uint32_t kErrorFlag = 0x20000000;
constexpr uint32_t kExtendedLimit = 0x1FFFFFFF;
constexpr uint32_t kStandardLimit = 0x7FF;

template <class T>
bool wholeNumber(std::string_view text, T &value, int base)
{
    const auto [end, error] = std::from_chars(text.data(), text.data() + text.size(), value, base);
    return error == std::errc{} && end == text.data() + text.size() && text.front() != '-';
}

// The next word, taken off `rest`. Words are short: a search for each of two characters would cost more.
std::string_view word(std::string_view &rest)
{
    const auto isSpace = [](char c) { return c == ' ' || c == '\t'; };
    const auto begin = std::find_if_not(rest.begin(), rest.end(), isSpace);
    const auto end = std::find_if(begin, rest.end(), isSpace);
    const std::string_view taken(begin, end);
    rest = std::string_view(end, rest.end());
    return taken;
}

Kind parseIdentifier(std::string_view text, CanFrame &frame)
{
    if ((text.size() != 3 && text.size() != 8) || !wholeNumber(text, frame.id, 16))
        return Kind::Bad;
    frame.extended = text.size() == 8;
    if (frame.extended && (frame.id & kErrorFlag) != 0)
        return Kind::Error;
    return frame.id <= (frame.extended ? kExtendedLimit : kStandardLimit) ? Kind::Frame : Kind::Bad;
}

bool parseByte(std::string_view text, CanFrame &frame)
{
    if (text.size() != 2 || frame.length == frame.data.size())
        return false;
    return wholeNumber(text, frame.data[frame.length++], 16);
}

// A single digit from 0 to 8.
bool parseLength(std::string_view text, CanFrame &frame)
{
    return text.size() == 1 && wholeNumber(text, frame.length, 10) && frame.length <= frame.data.size();
}

// The bytes of a payload, with or without points between them. `wide`: what more than 8 bytes are.
Kind parsePayload(std::string_view data, CanFrame &frame, Kind wide)
{
    bool tooWide = false;
    while (!data.empty()) {
        if (data.front() == '.')
            data.remove_prefix(1);
        tooWide = tooWide || frame.length == frame.data.size();
        CanFrame beyond;
        if (!parseByte(data.substr(0, 2), tooWide ? beyond : frame))
            return Kind::Bad;
        data.remove_prefix(2);
    }
    return tooWide ? wide : Kind::Frame;
}

// "##" and a digit of flags are in front of the payload of an FD frame; more digits, of a CAN XL frame.
Kind parseFdFrame(std::string_view data, CanFrame &frame)
{
    uint8_t flags = 0;
    if (data.size() < 2 || !wholeNumber(data.substr(1, 1), flags, 16))
        return Kind::Bad;
    return parsePayload(data.substr(2), frame, Kind::Fd);
}

Kind parseLogFrame(std::string_view text, CanFrame &frame)
{
    const size_t sign = text.find('#');
    const Kind kind = parseIdentifier(text.substr(0, sign), frame);
    if (kind != Kind::Frame)
        return kind;
    std::string_view data = text.substr(sign + 1);
    if (data.starts_with('#'))
        return parseFdFrame(data, frame);
    // A length code above 8 follows the data of a full frame and changes nothing about it.
    if (const size_t code = data.find('_'); code != std::string_view::npos && data.size() - code == 2)
        data = data.substr(0, code);
    if (data.starts_with('R') || data.starts_with('r')) {
        frame.remote = true;
        return data.size() == 1 || parseLength(data.substr(1), frame) ? Kind::Frame : Kind::Bad;
    }
    return parsePayload(data, frame, Kind::TooLong);
}

// "[5]" of a classic frame, "[08]" of an FD frame; more digits, "[0016]", of a CAN XL frame.
Kind parseScreenLength(std::string_view text, size_t &length)
{
    // A code above 8 can follow the length of a full frame: "{9}".
    if (const size_t brace = text.find('{'); brace != std::string_view::npos)
        text = text.substr(0, brace);
    if (text.size() < 3 || text.front() != '[' || text.back() != ']' ||
        !wholeNumber(text.substr(1, text.size() - 2), length, 10))
        return Kind::Bad;
    const bool classic = text.size() == 3;
    if (length <= CanFrame{}.data.size() && text.size() <= 4)
        return Kind::Frame;
    return classic ? Kind::TooLong : Kind::Fd;
}

Kind parseScreenFrame(std::string_view identifier, std::string_view rest, CanFrame &frame)
{
    // Wider tables have the direction and flags in front of the identifier: "TX B E", "RX - -".
    if (identifier == "RX" || identifier == "TX") {
        word(rest);
        word(rest);
        identifier = word(rest);
    }
    const Kind kind = parseIdentifier(identifier, frame);
    if (kind != Kind::Frame)
        return kind;
    size_t announced = 0;
    if (const Kind size = parseScreenLength(word(rest), announced); size != Kind::Frame)
        return size;
    std::string_view afterwards = rest;
    if (word(afterwards) == "remote") {
        frame.remote = true;
        frame.length = static_cast<uint8_t>(announced);
        return Kind::Frame;
    }
    while (frame.length < announced)
        if (!parseByte(word(rest), frame))
            return Kind::Bad;
    return Kind::Frame;
}

} // namespace

CandumpLine parseCandumpLine(std::string_view line)
{
    CandumpLine parsed;
    std::string_view rest = line;
    std::string_view peek = rest;
    const std::string_view first = word(peek);
    if (first.empty() || first.front() == '#') {
        parsed.kind = first.empty() ? Kind::Blank : Kind::Comment;
        return parsed;
    }
    if (first.front() == '(') {
        const size_t open = line.find('(');
        const size_t close = line.find(')');
        if (close == std::string_view::npos)
            return parsed;
        parsed.time = line.substr(open + 1, close - open - 1);
        parsed.ticks = parseLogTime(parsed.time);
        if (!parsed.ticks)
            return parsed;
        rest = line.substr(close + 1);
    }
    parsed.bus = word(rest);
    const std::string_view second = word(rest);
    parsed.kind = second.find('#') != std::string_view::npos ? parseLogFrame(second, parsed.frame)
                                                             : parseScreenFrame(second, rest, parsed.frame);
    return parsed;
}

} // namespace vu
