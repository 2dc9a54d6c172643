#include "vu/support/terminal.h"

#include <charconv>
#include <cstdlib>
#include <cstring>
#include <limits>
#include <sys/ioctl.h>
#include <unistd.h>

namespace vu {

namespace {

constexpr size_t kUsual = 80;
constexpr size_t kNarrowest = 20, kWidest = 10000; // what a picture or a table can use

size_t widthOr(size_t otherwise)
{
    size_t width = 0;
    winsize size = {};
    if (ioctl(STDOUT_FILENO, TIOCGWINSZ, &size) == 0)
        width = size.ws_col;
    if (const char *columns = std::getenv("COLUMNS"); width == 0 && columns)
        std::from_chars(columns, columns + std::strlen(columns), width);
    if (width == 0)
        return otherwise;
    return width < kNarrowest ? kNarrowest : width > kWidest ? kWidest : width;
}

} // namespace

size_t terminalWidth()
{
    return widthOr(kUsual);
}

size_t outputWidth()
{
    return widthOr(std::numeric_limits<size_t>::max());
}

} // namespace vu
