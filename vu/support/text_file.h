// Lines into an output file, formatted in memory and written in pieces.
#pragma once

#include <fmt/format.h>
#include <utility>

#include "vu/support/output_file.h"

namespace vu {

class TextFile {
public:
    TextFile(std::filesystem::path path, bool force) : file_(std::move(path), force) {}

    template <typename... Values>
    void print(fmt::format_string<Values...> text, Values &&...values)
    {
        fmt::format_to(std::back_inserter(buffer_), text, std::forward<Values>(values)...);
        drain(kPiece);
    }
    void append(std::string_view bytes)
    {
        buffer_.append(bytes.data(), bytes.data() + bytes.size());
        drain(kPiece);
    }
    void finish()
    {
        drain(0);
        file_.finish();
    }

private:
    static constexpr size_t kPiece = 1 << 16;

    void drain(size_t above)
    {
        if (buffer_.size() <= above)
            return;
        file_.write({buffer_.data(), buffer_.size()});
        buffer_.clear();
    }

    OutputFile file_;
    fmt::memory_buffer buffer_;
};

} // namespace vu
