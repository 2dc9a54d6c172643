#include "vu/record/zero.h"
#include "vu/support/say.h"

#include <algorithm>
#include <fmt/core.h>
#include <unistd.h>

#include "libvu/proxy/calibration.h"
#include "vu/record/intake.h"
#include "vu/support/texts.h"

namespace vu {

namespace {

constexpr size_t kLongestLine = 4096;

// The mean of the next frame becomes the zero, as at the start of a test.
void zeroSequential(ProxyNode &node)
{
    node.apply = node.element_size == sizeof(double) ? proxyNode_applyPrerunZeroDoubleScaleOffset
                                                     : proxyNode_applyPrerunZeroFloatScaleOffset;
    Intake::of(node).setReader(proxyNode_ProxyReaderSequentialScaling);
}

} // namespace

std::string requestZero(const std::vector<Track> &tracks, const std::string &name)
{
    const auto track = std::find_if(tracks.begin(), tracks.end(),
                                    [&](const Track &candidate) { return candidate.name == name; });
    if (track == tracks.end())
        return fmt::format("zero: there is no channel {}", printable(name));
    if (track->sequential)
        zeroSequential(*track->sequential);
    else if (track->rezero_pending)
        *track->rezero_pending = 1;
    else
        return fmt::format("zero: {} has no zero", printable(name));
    return {};
}

ZeroLines::ZeroLines(const std::vector<Track> &tracks) : tracks_(tracks)
{
    ev_io_init(&input_, onReadable, STDIN_FILENO, EV_READ);
    input_.data = this;
    ev_io_start(ev_default_loop(0), &input_);
}

ZeroLines::~ZeroLines()
{
    ev_io_stop(ev_default_loop(0), &input_);
}

void ZeroLines::onReadable(struct ev_loop *loop, ev_io *watcher, int)
{
    auto *self = static_cast<ZeroLines *>(watcher->data);
    char bytes[512];
    const ssize_t count = read(STDIN_FILENO, bytes, sizeof bytes);
    if (count <= 0) { // a terminal in the background, a closed pipe: nobody will ask any more
        ev_io_stop(loop, watcher);
        return;
    }
    self->rest_.append(bytes, static_cast<size_t>(count));
    for (size_t end; (end = self->rest_.find('\n')) != std::string::npos; self->rest_.erase(0, end + 1))
        self->take(self->rest_.substr(0, end));
    if (self->rest_.size() > kLongestLine)
        self->rest_.clear();
}

void ZeroLines::take(const std::string &line) const
{
    if (line.find_first_not_of(" \t\r") == std::string::npos)
        return;
    std::string answer = "expected a line: zero CHANNEL";
    if (line.starts_with("zero ")) {
        const size_t first = line.find_first_not_of(' ', 5);
        const size_t last = line.find_last_not_of(" \r");
        answer = requestZero(tracks_, first == std::string::npos ? "" : line.substr(first, last - first + 1));
    }
    if (!answer.empty())
        say("{}\n", answer);
}

} // namespace vu
