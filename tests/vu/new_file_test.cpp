// Files that appear complete or not at all.
#include <csignal>
#include <cstdarg>
#include <fcntl.h>
#include <gmock/gmock.h>
#include <sys/resource.h>
#include <sys/syscall.h>
#include <sys/wait.h>

#include "tests/support/temp_dir.h"
#include "vu/command.h"
#include "vu/support/output_file.h"

static bool unnamedFilesAreUnknown = false;

extern "C" int open(const char *path, int flags, ...)
{
    va_list arguments;
    va_start(arguments, flags);
    const int mode = va_arg(arguments, int);
    va_end(arguments);
    if (unnamedFilesAreUnknown && (flags & O_TMPFILE) == O_TMPFILE) {
        errno = EOPNOTSUPP;
        return -1;
    }
    return static_cast<int>(syscall(SYS_openat, AT_FDCWD, path, flags, mode));
}

namespace vu::test {
namespace {

using ::testing::HasSubstr;
using ::testing::ThrowsMessage;

// On a file system with files without a name, and on one that has none.
class NewFiles : public ::testing::TestWithParam<bool> {
protected:
    NewFiles() { unnamedFilesAreUnknown = !GetParam(); }
    ~NewFiles() override { unnamedFilesAreUnknown = false; }

    size_t files() const
    {
        const std::filesystem::directory_iterator all(folder.path());
        return static_cast<size_t>(std::distance(begin(all), end(all)));
    }
    // What a process of its own makes of `work`, as of waitpid().
    static int apart(auto &&work)
    {
        const pid_t child = fork();
        if (child == 0)
            _exit(work());
        int status = -1;
        waitpid(child, &status, 0);
        return status;
    }

    TempDir folder;
    const std::filesystem::path path = folder.path("result");
};
INSTANTIATE_TEST_SUITE_P(Unnamed, NewFiles, ::testing::Bool());

TEST_P(NewFiles, AppearCompleteUnderTheirNameOrNotAtAll)
{
    for (const bool force : {false, true}) {
        {
            OutputFile given_up(path, force);
            given_up.write("half");
            given_up.flushed();
        }
        EXPECT_EQ(files(), force ? 1u : 0u);
        OutputFile file(path, force);
        file.write("com");
        EXPECT_EQ(readText(file.flushed()), "com");
        EXPECT_EQ(readText(path), force ? "complete" : "");
        file.write(force ? "plete, again" : "plete");
        file.finish();
        EXPECT_EQ(files(), 1u);
        EXPECT_EQ(readText(path), force ? "complete, again" : "complete");
    }
    EXPECT_THROW(OutputFile(path, false), InputError);
    EXPECT_THROW(OutputFile(folder.path(), true), InputError) << "a folder";
    EXPECT_THROW(OutputFile("/dev/null", true), InputError);
    EXPECT_THROW(OutputFile(folder.path("no/such"), true), std::runtime_error);
}

TEST_P(NewFiles, NeverReplaceWhatCameMeanwhile)
{
    OutputFile file(path, false);
    file.write("late");
    writeText(path, "early");
    EXPECT_THROW(file.finish(), InputError);
    EXPECT_EQ(readText(path), "early");
}

// The name of the process and a link are all that it took to write into a file of somebody else's choice.
TEST_P(NewFiles, FollowNoLinkThatLiesReady)
{
    writeText(folder.path("victim"), "precious");
    std::filesystem::create_symlink("victim", path.string() + ".part" + std::to_string(getpid()));
    std::filesystem::create_symlink("victim", path);
    EXPECT_THROW(OutputFile(path, false), InputError);
    OutputFile file(path, true);
    file.write("result");
    file.finish();
    EXPECT_EQ(readText(folder.path("victim")), "precious");
    EXPECT_EQ(readText(path), "result");
}

TEST_P(NewFiles, LeaveNothingBehindAfterASignal)
{
    for (const int signal : {SIGINT, SIGTERM, SIGHUP}) {
        const int status = apart([&] {
            OutputFile file(path, false);
            file.write("half");
            file.flushed();
            raise(signal);
            return 0;
        });
        EXPECT_TRUE(WIFSIGNALED(status) && WTERMSIG(status) == signal) << status;
        EXPECT_EQ(files(), 0u);
    }
}

TEST_P(NewFiles, AFullDiskIsNoticedWhereItHappens)
{
    EXPECT_EQ(apart([&] {
                  std::signal(SIGXFSZ, SIG_IGN);
                  const rlimit full{300 << 10, RLIM_INFINITY};
                  setrlimit(RLIMIT_FSIZE, &full);
                  OutputFile file(path, false);
                  const auto refused = [&](auto &&what) {
                      try {
                          what();
                      } catch (const std::runtime_error &error) {
                          return std::string(error.what()).find("File too large") != std::string::npos;
                      }
                      return false;
                  };
                  const std::string piece(200 << 10, 'x');
                  return !refused([&] { file.expect(1 << 20); }) + 2 * refused([&] { file.write(piece); }) +
                         4 * !refused([&] { file.write(piece), file.write(piece); });
              }),
              0);
    EXPECT_EQ(files(), 0u);
}

TEST_P(NewFiles, NeverHaveAStandardDescriptor)
{
    EXPECT_EQ(apart([&] {
                  for (const int standard : {0, 1, 2})
                      close(standard);
                  const Descriptor opened(open("/dev/null", O_RDONLY | O_CLOEXEC));
                  const NewFile file(path, false);
                  return opened.get() <= STDERR_FILENO || file.fd() <= STDERR_FILENO;
              }),
              0);
}

} // namespace
} // namespace vu::test
