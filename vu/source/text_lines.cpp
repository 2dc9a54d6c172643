#include "vu/source/text_lines.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <fmt/format.h>

namespace vu {

namespace {

constexpr size_t kLineLimit = 4096;

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
    if (count > 0)
        return true;
    // A cut file comes as an ordinary end, with this for the only sign.
    int error = Z_OK;
    gzerror(file_.get(), &error);
    if (error == Z_BUF_ERROR)
        throw TruncatedInput(
            fmt::format("{}:{}: the file ends in the middle of its compressed data", path_, number_ + 1));
    return false;
}

std::string TextLines::where() const
{
    return fmt::format("{}:{}", path_, number_);
}

bool TextLines::next(std::string &line)
{
    line.clear();
    if (unread_.empty() && !refill())
        return false;
    ++number_;
    cut_ = true;
    do {
        const size_t end = std::min(unread_.find('\n'), unread_.size());
        line.append(unread_.substr(0, std::min(end, kLineLimit - line.size())));
        const bool whole = end < unread_.size();
        unread_.remove_prefix(whole ? end + 1 : end);
        if (whole) {
            cut_ = false;
            break;
        }
    } while (refill());
    if (line.ends_with('\r'))
        line.pop_back();
    return true;
}

} // namespace vu
