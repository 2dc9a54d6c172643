// The built command running beside a test, which can watch it, send it signals and write to its input; or run
// to its end.
#pragma once

#include <chrono>
#include <filesystem>
#include <string>
#include <sys/types.h>
#include <vector>

#include "tests/support/temp_dir.h"

namespace vu::test {

class RunningVu {
public:
    // `fileLimit`: bytes beyond which the process can write no file; 0: none. `closed`: the digits of
    // standard descriptors that it does not have.
    explicit RunningVu(const std::vector<std::string> &arguments, uint64_t fileLimit = 0,
                       const std::string &closed = {});
    ~RunningVu(); // kills what still runs
    RunningVu(RunningVu &&) = delete;

    void write(const std::string &line) const; // to its standard input
    void signal(int number) const;
    // Until `file` has so many bytes; false after 20 s.
    bool waitForBytes(const std::filesystem::path &file, uintmax_t bytes) const;
    // Waits for its end. The exit status; minus the signal that ended it.
    int wait();
    pid_t pid() const { return pid_; }
    std::string out() const { return readText(folder_.path("out")); }
    std::string err() const { return readText(folder_.path("err")); }

private:
    TempDir folder_;
    pid_t pid_ = -1;
    int input_ = -1;
};

struct CommandResult {
    int status = -1; // as of wait()
    std::string out;
    std::string err;
};

// `vu` with these arguments, each passed as it is.
inline CommandResult runVu(const std::vector<std::string> &arguments)
{
    RunningVu command(arguments);
    const int status = command.wait();
    return {status, command.out(), command.err()};
}

} // namespace vu::test
