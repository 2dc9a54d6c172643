// A file as bytes, of any size, read by the system as they are needed.
#pragma once

#include <filesystem>

#include "vu/krdfile/bytes.h"

namespace vu::krd {

class MappedFile {
public:
    // Throws InputError with the path and the system's reason.
    explicit MappedFile(const std::filesystem::path &path);
    ~MappedFile();
    MappedFile(MappedFile &&other) noexcept;
    MappedFile &operator=(MappedFile &&) = delete;

    Bytes bytes() const { return bytes_; }

private:
    Bytes bytes_;
};

} // namespace vu::krd
