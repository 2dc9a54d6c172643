// A file of any size, read in pieces; or bytes that are in memory already.
//
// No file is mapped: one that becomes shorter while it is read, or a disk that fails, is an error with a
// message and not the end of the process, and a file may be larger than the address space.
#pragma once

#include <filesystem>
#include <memory>
#include <string>
#include <vector>

#include "vu/krdfile/bytes.h"
#include "vu/support/descriptor.h"

namespace vu::krd {

class InputFile {
public:
    // Throws InputError with the name and the system's reason. `name` is what messages call it; the path if
    // empty.
    explicit InputFile(const std::filesystem::path &path, std::string name = {});
    // The bytes have to outlive it.
    InputFile(Bytes memory, std::string name) : memory_(memory), size_(memory.size()), name_(std::move(name))
    {
    }

    uint64_t size() const { return size_; }
    const std::string &name() const { return name_; }
    // Fills `to`, which lies within the file. Throws std::runtime_error if the file cannot give the bytes.
    void read(uint64_t offset, std::span<uint8_t> to) const;
    // All of it if it is in memory; else no data pointer.
    Bytes memory() const { return memory_; }

private:
    Bytes memory_;
    uint64_t size_ = 0; // when it was opened
    std::string name_;
    Descriptor descriptor_;
};

// A file looked at through a buffer: what lies side by side is read at once.
class Window {
public:
    static constexpr size_t kPiece = 64 << 10; // the largest view to ask for

    explicit Window(const InputFile &file) : file_(file) {}
    Window(const Window &) = delete;
    Window &operator=(const Window &) = delete;

    // `size` bytes at `offset`, all within the file; good until the next call.
    Bytes at(uint64_t offset, size_t size);
    // The same without moving the window: a few bytes far away.
    void copy(uint64_t offset, std::span<uint8_t> to) const;

private:
    const InputFile &file_;
    uint64_t begin_ = 0; // in the file, of what the buffer holds
    size_t held_ = 0;
    std::vector<uint8_t> buffer_;
};

// visit(piece) for the pieces of a part of the file, in order.
template <typename Visit>
void forEachPiece(Window &window, uint64_t offset, uint64_t size, Visit &&visit)
{
    for (uint64_t end = offset + size; offset < end;) {
        const Bytes piece = window.at(offset, std::min<uint64_t>(end - offset, Window::kPiece));
        visit(piece);
        offset += piece.size();
    }
}

} // namespace vu::krd
