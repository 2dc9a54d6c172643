// Memory that runs out at any point of a command that reads files: one line and status 1, never a signal.
#include <cstdlib>
#include <fcntl.h>
#include <gtest/gtest.h>
#include <new>
#include <sys/wait.h>
#include <unistd.h>

#include "tests/support/krd_builder.h"
#include "vu/run_command.h"

namespace {

int64_t allocations_left = -1; // every one after them fails; below 0: none does

[[maybe_unused]] void *allocate(size_t size)
{
    if (allocations_left == 0)
        throw std::bad_alloc();
    allocations_left -= allocations_left > 0;
    void *memory = std::malloc(size > 0 ? size : 1);
    if (!memory)
        throw std::bad_alloc();
    return memory;
}

} // namespace

#if !VU_SANITIZED // whose own allocator keeps account of every kind of new and delete
void *operator new(size_t size)
{
    return allocate(size);
}
void *operator new[](size_t size)
{
    return allocate(size);
}
void operator delete(void *memory) noexcept
{
    std::free(memory);
}
void operator delete[](void *memory) noexcept
{
    std::free(memory);
}
void operator delete(void *memory, size_t) noexcept
{
    std::free(memory);
}
void operator delete[](void *memory, size_t) noexcept
{
    std::free(memory);
}
#endif

namespace vu::test {
namespace {

// The status of a command in a process of its own, after so many allocations; minus the signal that ended it.
int statusAfter(int64_t allocations, const std::vector<std::string> &words)
{
    std::vector<const char *> arguments;
    for (const std::string &word : words)
        arguments.push_back(word.c_str());
    const pid_t child = fork();
    if (child == 0) {
        dup2(open("/dev/null", O_WRONLY), STDOUT_FILENO);
        dup2(STDOUT_FILENO, STDERR_FILENO);
        endQuietlyWithoutMemory();
        allocations_left = allocations;
        const int status = runCommand(static_cast<int>(arguments.size()), arguments.data());
        allocations_left = -1;
        _exit(status);
    }
    int status = 0;
    waitpid(child, &status, 0);
    return WIFSIGNALED(status) ? -WTERMSIG(status) : WEXITSTATUS(status);
}

TEST(OutOfMemory, EndsEveryReaderWithStatusOne)
{
    if (VU_SANITIZED)
        GTEST_SKIP() << "a sanitizer has an allocator of its own";
    TempDir folder;
    KrdBuilder all(folder.path("all"), everyKind());
    buildEverything(all);
    const std::string file = folder.path("all"), out = folder.path("out");
    for (const std::vector<std::string> &words : std::vector<std::vector<std::string>>{
             {"vu", "info", file},
             {"vu", "verify", file, "--json"},
             {"vu", "plot", file},
             {"vu", "export", file, "-o", out, "--force"},
             {"vu", "recover", file, "-o", folder.path("mended"), "--force"}}) {
        int status = 1;
        for (int64_t n = 0; status != 0; n += 1 + n / 16) {
            status = statusAfter(n, words);
            ASSERT_TRUE(status == 0 || status == 1) << words[1] << ' ' << n << ": " << status;
        }
    }
}

} // namespace
} // namespace vu::test
