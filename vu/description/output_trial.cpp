#include "vu/description/output_trial.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <unistd.h>

#include "vu/description/stanza_rules.h"
#include "vu/support/descriptor.h"
#include "vu/support/new_file.h"

namespace vu {

namespace {

// A file without a name shows that the folder takes one, and leaves nothing. Where the disk knows no such
// files, its permissions have to do.
bool takesFiles(const std::filesystem::path &folder)
{
    const Descriptor made(open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    if (made)
        return true;
    return (errno == EOPNOTSUPP || errno == EISDIR || errno == ENOSYS) && access(folder.c_str(), W_OK) == 0;
}

} // namespace

std::string outputRefusal(const std::filesystem::path &file, bool replace)
{
    std::error_code ignored;
    const auto folder = file.has_parent_path() ? file.parent_path() : std::filesystem::path(".");
    if (file.filename().string().size() > kLongestName)
        return fmt::format("expected a file name of at most {} bytes", kLongestName);
    if (std::filesystem::is_directory(file, ignored))
        return fmt::format("{} is a folder: expected a file", file.string());
    if (!std::filesystem::is_directory(folder, ignored))
        return fmt::format("there is no folder {}", folder.string());
    const bool isFile = std::filesystem::is_regular_file(file, ignored);
    if (const pid_t recorder = isFile ? recorderOf(file) : 0; recorder != 0)
        return recordedBy(file, recorder);
    if (std::filesystem::exists(file, ignored) && !replace)
        return fmt::format("{} exists already: --force replaces it", file.string());
    if (!takesFiles(folder))
        return fmt::format("{}: cannot be written: {}", file.string(), std::strerror(errno));
    return {};
}

} // namespace vu
