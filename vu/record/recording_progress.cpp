#include "vu/record/recording_progress.h"

#include <algorithm>
#include <fmt/format.h>

#include "vu/support/texts.h"

namespace vu {

void RecordingProgress::show()
{
    const double passed = line_.due();
    if (passed == 0.0)
        return;
    const double seconds = line_.seconds();
    const uint64_t bytes = file_.writtenBytes();
    std::string text = fmt::format("{:7.1f} s  {}  {}/s", seconds, sizeText(bytes),
                                   sizeText(static_cast<double>(bytes - last_bytes_) / passed));
    if (test_.duration > 0.0)
        text += fmt::format("  {} left", durationText(std::max(0.0, test_.duration - seconds)));
    line_.show(text);
    last_bytes_ = bytes;
}

} // namespace vu
