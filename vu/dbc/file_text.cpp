#include "vu/dbc/file_text.h"

#include <cerrno>
#include <cstring>
#include <fmt/format.h>
#include <memory>
#include <zlib.h>

#include "vu/command.h"

namespace vu::dbc {

namespace {

constexpr size_t kMostBytes = 256 << 20; // a packed file can claim to be endless
constexpr unsigned kPiece = 64 << 10;

// Bytes 80 to 9F of Windows-1252, where it differs from Latin-1. The five that it leaves free stay what they
// are there, control characters.
constexpr char16_t kWindows1252[32] = {0x20AC, 0x0081, 0x201A, 0x0192, 0x201E, 0x2026, 0x2020, 0x2021,
                                       0x02C6, 0x2030, 0x0160, 0x2039, 0x0152, 0x008D, 0x017D, 0x008F,
                                       0x0090, 0x2018, 0x2019, 0x201C, 0x201D, 0x2022, 0x2013, 0x2014,
                                       0x02DC, 0x2122, 0x0161, 0x203A, 0x0153, 0x009D, 0x017E, 0x0178};

// How many bytes the UTF-8 character at the front of `text` has; 0 if there is none.
size_t utf8Length(std::string_view text)
{
    const auto byte = [&](size_t i) { return i < text.size() ? static_cast<unsigned char>(text[i]) : 0u; };
    const auto follow = [&](size_t i) { return (byte(i) & 0xC0) == 0x80; };
    if (byte(0) < 0x80)
        return 1;
    if (byte(0) >= 0xC2 && byte(0) < 0xE0)
        return follow(1) ? 2 : 0;
    const unsigned pair = byte(0) << 8 | byte(1);
    if (byte(0) >= 0xE0 && byte(0) < 0xF0) // neither overlong nor half of a surrogate pair
        return follow(1) && follow(2) && pair >= 0xE0A0 && (pair < 0xEDA0 || pair > 0xEDBF) ? 3 : 0;
    return pair >= 0xF090 && pair <= 0xF48F && follow(1) && follow(2) && follow(3) ? 4 : 0;
}

void appendUtf8(std::string &to, unsigned code) // below 10000 hexadecimal
{
    const auto add = [&to](unsigned byte) { to += static_cast<char>(byte); };
    if (code < 0x80)
        return add(code);
    if (code < 0x800) {
        add(0xC0 | code >> 6);
    } else {
        add(0xE0 | code >> 12);
        add(0x80 | (code >> 6 & 0x3F));
    }
    add(0x80 | (code & 0x3F));
}

} // namespace

std::string toUtf8(std::string_view text)
{
    if (text.starts_with("\xEF\xBB\xBF"))
        text.remove_prefix(3);
    size_t length = 1;
    for (std::string_view rest = text; !rest.empty() && length > 0; rest.remove_prefix(length))
        length = utf8Length(rest);
    if (length > 0)
        return std::string(text);
    std::string converted;
    converted.reserve(text.size() + text.size() / 8);
    for (const char c : text) {
        const auto byte = static_cast<unsigned char>(c);
        appendUtf8(converted, byte >= 0x80 && byte < 0xA0 ? kWindows1252[byte - 0x80] : byte);
    }
    return converted;
}

std::string readFile(const std::filesystem::path &file)
{
    const auto refuse = [&file](const std::string &why) {
        throw InputError(fmt::format("{}: expected a DBC file that can be read: {}", file.string(), why));
    };
    errno = 0;
    // A file that is not packed is passed on as it is.
    const std::unique_ptr<gzFile_s, int (*)(gzFile)> in(gzopen(file.c_str(), "rb"), gzclose);
    if (!in)
        refuse(std::strerror(errno != 0 ? errno : ENOMEM));
    std::string text;
    for (;;) {
        const size_t held = text.size();
        if (held > kMostBytes)
            refuse(fmt::format("it is larger than {} MB", kMostBytes >> 20));
        text.resize(held + kPiece);
        const int got = gzread(in.get(), text.data() + held, kPiece);
        text.resize(held + static_cast<size_t>(got > 0 ? got : 0));
        if (got > 0)
            continue;
        int error = Z_OK; // a packed file that is cut is reported at its end alone
        const char *why = gzerror(in.get(), &error);
        if (got < 0 || error != Z_OK)
            refuse(error == Z_ERRNO ? std::strerror(errno) : error == Z_BUF_ERROR ? "it is truncated" : why);
        return text;
    }
}

} // namespace vu::dbc
