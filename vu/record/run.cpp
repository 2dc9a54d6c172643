#include "vu/record/run.h"

#include <csignal>
#include <fmt/format.h>
#include <new>
#include <stdexcept>

#include "vu/record/connect.h"
#include "vu/record/descriptor_limit.h"
#include "vu/record/session.h"
#include "vu/record/signals.h"
#include "vu/record/status.h"
#include "vu/record/summary.h"
#include "vu/record/zero.h"
#include "vu/support/say.h"

namespace vu {

namespace {

// Between two tries to connect: a source that has ended will never listen.
void checkAlive(const Channel &channel, Children &children, const EndSignals &signals)
{
    ev_run(ev_default_loop(0), EVRUN_NOWAIT);
    const Children::Child *child = children.find(channel.name);
    if (child && !child->running)
        throw std::runtime_error(fmt::format("{}: its source ended with {} before it listened", channel.name,
                                             describeEnd(child->status)));
    if (signals.arrived())
        throw std::runtime_error("stopped before the recording began");
}

// Without memory the recording ends, and what came until then is kept.
const char *runToItsEnd(Session &session, DataFile &file, Events &events)
{
    try {
        return session.run();
    } catch (const std::bad_alloc &) {
        file.releaseMemory();
        events.add("error", "", "out of memory: the recording ends here");
        return "out_of_memory";
    }
}

} // namespace

int recordTest(const Description &test, const RecordOptions &options)
{
    setHostCallbacks({});
    // A source or a disk that is gone, a terminal that is somebody else's: reported by the call's result.
    for (const int ignored : {SIGPIPE, SIGXFSZ, SIGTTIN})
        std::signal(ignored, SIG_IGN);
    makeRoomForChannels(test.channels.size());
    EndSignals signals;
    AskingSignals asking;
    Events events;
    DataFile file(test.file, options.force);

    Children children;
    for (const Channel &channel : test.channels)
        if (options.start_sources && channel.source)
            children.start(channel);
    auto channels = makeChannels(test, connectAll(test, children, [&](const Channel &channel) {
                                     checkAlive(channel, children, signals);
                                 }));

    std::vector<Track> tracks;
    for (const auto &channel : channels)
        for (Track &track : channel->tracks())
            tracks.push_back(std::move(track));
    Watch watch(test, tracks);
    for (Track &track : watch.tracks())
        tracks.push_back(std::move(track));
    file.begin(test, tracks);

    const ZeroLines zeroes(tracks);
    Session session({test, events, file, watch, children, signals, channels});
    asking.setStatus([&] { say("{}", statusText(test, file, events, channels)); });
    const char *end = runToItsEnd(session, file, events);
    asking.setStatus({});
    const double seconds = events.seconds();
    const std::vector<Account> accounts = children.accounts(test);
    for (const Account &account : accounts)
        file.account(account);
    file.finish(end, events);
    printSummary(test, file, events, accounts, {end, seconds, std::filesystem::file_size(file.path())},
                 options.json);
    return recordingStatus(file, events, accounts);
}

} // namespace vu
