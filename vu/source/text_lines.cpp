#include "vu/source/text_lines.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>

#include "vu/command.h"

namespace vu {

namespace {

constexpr size_t kLineLimit = 4096;
constexpr size_t kExamples = 5;
constexpr size_t kExampleLength = 60;

// What a terminal can show: a log may hold anything.
std::string printable(std::string_view text)
{
    std::string shown(text.substr(0, kExampleLength));
    std::replace_if(
        shown.begin(), shown.end(), [](char c) { return c < ' ' || c > '~'; }, '?');
    return text.size() > kExampleLength ? shown + "..." : shown;
}

} // namespace

TextLines::TextLines(const std::string &path) : path_(path), file_(gzopen(path.c_str(), "rb"))
{
    if (!file_)
        throw InputError(fmt::format("{}: {}", path, std::strerror(errno)));
}

bool TextLines::refill()
{
    const int count = gzread(file_.get(), buffer_.data(), static_cast<unsigned>(buffer_.size()));
    if (count < 0) {
        int error = Z_OK;
        const char *reason = gzerror(file_.get(), &error);
        throw InputError(
            fmt::format("{}:{}: {}", path_, number_ + 1, error == Z_ERRNO ? std::strerror(errno) : reason));
    }
    unread_ = std::string_view(buffer_.data(), static_cast<size_t>(count));
    return count > 0;
}

bool TextLines::next(std::string &line)
{
    line.clear();
    if (unread_.empty() && !refill())
        return false;
    ++number_;
    do {
        const size_t end = std::min(unread_.find('\n'), unread_.size());
        line.append(unread_.substr(0, std::min(end, kLineLimit - line.size())));
        const bool whole = end < unread_.size();
        unread_.remove_prefix(whole ? end + 1 : end);
        if (whole)
            break;
    } while (refill());
    if (line.ends_with('\r'))
        line.pop_back();
    return true;
}

void LeftOut::add(const std::string &what, const std::string &where, std::string_view text)
{
    auto cause = std::find_if(causes_.begin(), causes_.end(), [&](const Cause &c) { return c.what == what; });
    if (cause == causes_.end())
        cause = causes_.insert(cause, Cause{what, 0, {}});
    if (++cause->count <= kExamples)
        cause->examples.push_back(fmt::format("{}: '{}'", where, printable(text)));
}

std::vector<std::string> LeftOut::notes() const
{
    std::vector<std::string> lines;
    for (const Cause &cause : causes_) {
        lines.push_back(fmt::format("{} left out: {}", cause.what, cause.count));
        for (const std::string &example : cause.examples)
            lines.push_back("  " + example);
        if (cause.count > cause.examples.size())
            lines.push_back(fmt::format("  and {} more", cause.count - cause.examples.size()));
    }
    return lines;
}

} // namespace vu
