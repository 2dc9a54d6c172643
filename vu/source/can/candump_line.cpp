#include "vu/source/can/candump_line.h"

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

// The next word, taken off `rest`.
std::string_view word(std::string_view &rest)
{
    const size_t begin = std::min(rest.find_first_not_of(" \t"), rest.size());
    rest.remove_prefix(begin);
    const size_t end = std::min(rest.find_first_of(" \t"), rest.size());
    const std::string_view taken = rest.substr(0, end);
    rest.remove_prefix(end);
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

Kind parseLogFrame(std::string_view text, CanFrame &frame)
{
    const size_t sign = text.find('#');
    const Kind kind = parseIdentifier(text.substr(0, sign), frame);
    if (kind == Kind::Bad)
        return kind;
    std::string_view data = text.substr(sign + 1);
    if (data.starts_with('#'))
        return Kind::Fd;
    if (kind == Kind::Error)
        return kind;
    // A length code above 8 follows the data of a full frame and changes nothing about it.
    if (const size_t code = data.find('_'); code != std::string_view::npos && data.size() - code == 2)
        data = data.substr(0, code);
    if (data.starts_with('R') || data.starts_with('r')) {
        frame.remote = true;
        return data.size() == 1 || parseLength(data.substr(1), frame) ? Kind::Frame : Kind::Bad;
    }
    while (!data.empty()) {
        if (data.front() == '.')
            data.remove_prefix(1);
        if (!parseByte(data.substr(0, 2), frame))
            return Kind::Bad;
        data.remove_prefix(2);
    }
    return Kind::Frame;
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
    std::string_view length = word(rest);
    // Behind the length of a full frame a code above 8 can stand: "{9}".
    if (const size_t brace = length.find('{'); brace != std::string_view::npos)
        length = length.substr(0, brace);
    if (length.size() < 3 || length.front() != '[' || length.back() != ']')
        return Kind::Bad;
    length = length.substr(1, length.size() - 2);
    CanFrame announced;
    if (length.size() > 1) // FD frames have lengths of two digits, XL frames more
        return length.find_first_not_of("0123456789") == std::string_view::npos ? Kind::Fd : Kind::Bad;
    if (!parseLength(length, announced))
        return Kind::Bad;
    std::string_view afterwards = rest;
    if (word(afterwards) == "remote") {
        frame.remote = true;
        frame.length = announced.length;
        return Kind::Frame;
    }
    while (frame.length < announced.length)
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
        parsed.kind = Kind::Blank;
        return parsed;
    }
    if (first.front() == '(') {
        const size_t open = line.find('(');
        const size_t close = line.find(')');
        if (close == std::string_view::npos)
            return parsed;
        parsed.ticks = parseLogTime(line.substr(open + 1, close - open - 1));
        if (!parsed.ticks)
            return parsed;
        rest = line.substr(close + 1);
    }
    word(rest); // the interface: which of them brought a frame is not part of a channel
    const std::string_view second = word(rest);
    parsed.kind = second.find('#') != std::string_view::npos ? parseLogFrame(second, parsed.frame)
                                                             : parseScreenFrame(second, rest, parsed.frame);
    return parsed;
}

} // namespace vu
