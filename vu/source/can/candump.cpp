#include <CLI/CLI.hpp>
#include <cmath>
#include <cstdlib>
#include <exception>
#include <fmt/format.h>

#include "vu/command.h"
#include "vu/source/can/candump_line.h"
#include "vu/source/can/candump_survey.h"
#include "vu/source/kinds.h"
#include "vu/source/log_time.h"
#include "vu/source/text_lines.h"

namespace vu {

namespace {

struct CandumpOptions {
    std::string file;
    std::string bus;        // the interface whose frames are taken; empty: there is only one
    double spacing = 0.001; // seconds between frames that have no time
    double tail = 0.01;     // seconds
    double longestGap = kLongestGap;
};

class CandumpProducer : public Producer {
public:
    explicit CandumpProducer(const CandumpOptions &options)
        : options_(options), lines_(options.file), bus_(options.bus),
          spacing_(static_cast<int64_t>(std::llround(options.spacing * kTicksPerSecond))),
          tail_(static_cast<int64_t>(std::llround(options.tail * kTicksPerSecond)))
    {
        checkCandump(options.file, options.bus);
        if (!(ahead_ = parseNext()))
            throw InputError(fmt::format("{}: there is no CAN frame in it", options.file));
        first_ = ahead_->ticks;
        started_ = true;
    }

    bool next(WireWriter &wire, int64_t &dueTicks) override;

private:
    struct Timed {
        int64_t ticks; // as in the log
        CanFrame frame;
    };
    std::optional<Timed> parseNext();
    std::optional<Timed> take(const CandumpLine &line);
    bool isWanted(const CandumpLine &line);
    void advance();
    void leaveOut(const char *cause) { account_.leaveOut(cause, lines_.where(), line_); }

    const CandumpOptions options_;
    TextLines lines_;
    std::string bus_; // of the frames so far
    int64_t spacing_;
    int64_t tail_;
    std::string line_;
    std::optional<Timed> ahead_;
    int64_t first_ = 0; // log time of the first frame
    bool started_ = false;
    int64_t parsed_ = 0; // log time of the frame last parsed
    int64_t told_ = 0;   // the latest time sent, from the first frame on
    int64_t end_ = 0;    // when told_ gets here, all times are sent; set after the last frame
    std::exception_ptr failure_;
};

// Frames of another bus than the one chosen are nobody's loss; where none was chosen there must be only one.
bool CandumpProducer::isWanted(const CandumpLine &line)
{
    if (bus_.empty())
        bus_ = line.bus;
    if (bus_ == line.bus)
        return true;
    if (options_.bus.empty())
        throw InputError(fmt::format("{}: frames of the bus {} follow those of {}: expected one of them as "
                                     "bus (--bus)",
                                     lines_.where(), line.bus, bus_));
    account_.leaveOut("other_bus");
    return false;
}

std::optional<CandumpProducer::Timed> CandumpProducer::take(const CandumpLine &line)
{
    const int64_t ticks = line.ticks.value_or(parsed_ + spacing_);
    if (ahead_)
        checkStep(ticks - parsed_, options_.longestGap, lines_.where());
    parsed_ = ticks;
    return Timed{ticks, line.frame};
}

std::optional<CandumpProducer::Timed> CandumpProducer::parseNext()
{
    using Kind = CandumpLine::Kind;
    while (lines_.next(line_)) {
        const CandumpLine line = parseCandumpLine(line_);
        if (line.isFrame()) {
            if (!isWanted(line))
                continue;
            account_.read();
        }
        switch (line.kind) {
        case Kind::Blank: break;
        case Kind::Comment: account_.leaveOut("comments"); break;
        case Kind::Fd: leaveOut("can_fd"); break;
        case Kind::TooLong: leaveOut("too_long"); break;
        case Kind::Error: leaveOut("error_frames"); break;
        case Kind::Bad:
            account_.read();
            leaveOut(lines_.endedInLine() ? "truncated" : "unreadable");
            break;
        case Kind::Frame:
            // A payload that is cut between two bytes looks like a shorter one.
            if (lines_.endedInLine()) {
                leaveOut("truncated");
                break;
            }
            if (started_ && line.ticks && *line.ticks < first_) {
                checkStep(*line.ticks - parsed_, options_.longestGap, lines_.where());
                leaveOut("unreadable"); // its time has no place on the axis of the test
                break;
            }
            return take(line);
        }
    }
    return std::nullopt;
}

void CandumpProducer::advance()
{
    try {
        ahead_ = parseNext();
    } catch (const InputError &) {
        ahead_.reset(); // what came before the damage goes out first
        account_.leaveOut("truncated");
        failure_ = std::current_exception();
    }
    if (!ahead_)
        end_ = told_ + tail_;
}

bool CandumpProducer::next(WireWriter &wire, int64_t &dueTicks)
{
    constexpr int kBodyLimit = 512;
    if (failure_ && told_ >= end_)
        std::rethrow_exception(failure_);
    const int64_t begin = told_;
    bool more = true;
    wire.beginRecord();
    for (int count = 0; more && count < kBodyLimit && told_ - begin < kCanTimeSpacing; ++count) {
        const int64_t ticks = ahead_ ? ahead_->ticks - first_ : end_;
        if (ticks - told_ > kCanTimeSpacing) {
            told_ += kCanTimeSpacing;
            writeCanTime(wire, told_);
            continue;
        }
        told_ = std::max(told_, ticks);
        if (ahead_) {
            writeCan(wire, ticks, ahead_->frame);
            account_.wrote();
            advance();
        } else {
            writeCanTime(wire, told_);
            more = false;
        }
    }
    wire.endRecord();
    dueTicks = told_;
    return more || failure_;
}

} // namespace

void addCandump(CLI::App &source, Action &chosen)
{
    CLI::App *kind = source.add_subcommand(
        "candump", "The frames of a candump log, in its log form or its screen form, plain or gzip\n"
                   "Times count from the first frame; a time-only record follows at least every 10 ms.\n"
                   "CAN FD frames of at most 8 bytes are taken like classic ones.\n"
                   "Example: vu source candump drive.log --listen unix:run/can0.sock --speed 10");
    auto options = std::make_shared<CandumpOptions>();
    kind->add_option("FILE", options->file, "the log")->required();
    kind->add_option("--spacing", options->spacing, "seconds between frames without a time [0.001]");
    kind->add_option("--tail", options->tail,
                     "seconds from the last frame to the time-only record at the end: values of the last "
                     "frames\nshow in channels whose sample period is not longer [0.01]");
    kind->add_option("--bus", options->bus,
                     "the interface whose frames are taken, where the log has several [the only one]");
    kind->add_option("--longest-gap", options->longestGap,
                     "seconds: a longer step in the times of the log, forth or back, ends the source with "
                     "the line's number [3600]");
    addLeaveOut(*kind);
    chooseKind(*kind, chosen, options, [](const ServeOptions &serving, const CandumpOptions &settled) {
        expectSeconds("--spacing", settled.spacing, 0.0, 60.0);
        expectSeconds("--tail", settled.tail, 0.0, 60.0);
        expectLongestGap(settled.longestGap);
        CandumpProducer producer(settled);
        return serve(serving, producer);
    });
}

} // namespace vu
