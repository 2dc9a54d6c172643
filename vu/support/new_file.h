// A file that has no name until its maker gives it one: what had the name before is untouched until
// then, and a process that ends early, by a signal or a lost machine, leaves no file.
//
// It is a new inode. Where the file system knows files without a name it has none; elsewhere it begins under
// a random name in the same folder, which goes away with the object, or with SIGINT, SIGTERM or SIGHUP.
//
// A file that is being recorded is locked as long as the recorder has it open, and nothing here takes its
// name from it.
#pragma once

#include <filesystem>
#include <string>

#include "vu/support/descriptor.h"

namespace vu {

class NewFile {
public:
    // Refuses a name that is taken: by any file without `force`; with it by a file that is being recorded,
    // and by what is no file (a folder, a device). `flags` are added to those of open(). Throws InputError,
    // or std::runtime_error with the path and the system's reason.
    NewFile(std::filesystem::path path, bool force, int flags = 0);
    ~NewFile(); // without a name the file is gone
    NewFile(const NewFile &) = delete;
    NewFile &operator=(const NewFile &) = delete;

    const std::filesystem::path &path() const { return path_; }
    int fd() const { return file_.get(); }
    // Where the file can be opened once more while it has no name.
    std::filesystem::path openablePath() const;
    // Says to every other process that this one records into the file, until the descriptor is closed.
    void lock();
    // Gives the file its name; refuses as the constructor does. A file of that name is replaced in one step.
    void name();
    void close() { file_.close(); }

private:
    void makeTemporary(int flags);
    void take();

    std::filesystem::path path_;
    bool force_;
    bool named_ = false;
    Descriptor file_;
    std::string temporary_; // empty: the file has no name at all
};

// The folder that `path` is in, "." for a bare name.
std::filesystem::path folderOf(const std::filesystem::path &path);

// The process that records into the file at `path`; 0 if none does, and -1 if it cannot be named.
pid_t recorderOf(const std::filesystem::path &path);
// What is said of such a file.
std::string recordedBy(const std::filesystem::path &path, pid_t recorder);

} // namespace vu
