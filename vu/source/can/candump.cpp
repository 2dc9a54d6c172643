#include <CLI/CLI.hpp>
#include <cmath>
#include <exception>
#include <fmt/format.h>

#include "vu/command.h"
#include "vu/source/can/candump_line.h"
#include "vu/source/kinds.h"
#include "vu/source/text_lines.h"

namespace vu {

namespace {

struct CandumpOptions {
    std::string file;
    double spacing = 0.001; // seconds between frames that have no time
    double tail = 0.01;     // seconds
};

constexpr int64_t kSuspiciousGap = 3600 * kTicksPerSecond;

class CandumpProducer : public Producer {
public:
    explicit CandumpProducer(const CandumpOptions &options)
        : options_(options), lines_(options.file),
          spacing_(static_cast<int64_t>(std::llround(options.spacing * kTicksPerSecond))),
          tail_(static_cast<int64_t>(std::llround(options.tail * kTicksPerSecond)))
    {
        if (!(ahead_ = parseNext()))
            throw InputError(fmt::format("{}: there is no CAN frame in it", options.file));
        first_ = ahead_->ticks;
    }

    bool next(WireWriter &wire, int64_t &dueTicks) override;
    std::vector<std::string> notes() const override { return leftOut_.notes(); }

private:
    struct Timed {
        int64_t ticks; // as in the log
        CanFrame frame;
    };
    std::optional<Timed> parseNext();
    void advance();
    void leaveOut(const char *what) { leftOut_.add(what, where(), line_); }
    std::string where() const { return fmt::format("{}:{}", lines_.path(), lines_.number()); }

    const CandumpOptions options_;
    TextLines lines_;
    int64_t spacing_;
    int64_t tail_;
    std::string line_;
    LeftOut leftOut_;
    std::optional<Timed> ahead_;
    int64_t first_ = 0;  // log time of the first frame
    int64_t parsed_ = 0; // log time of the frame last parsed
    int64_t told_ = 0;   // the latest time sent, from the first frame on
    int64_t end_ = 0;    // when told_ gets here, all is told; set behind the last frame
    std::exception_ptr failure_;
};

std::optional<CandumpProducer::Timed> CandumpProducer::parseNext()
{
    while (lines_.next(line_)) {
        const CandumpLine line = parseCandumpLine(line_);
        switch (line.kind) {
        case CandumpLine::Kind::Blank: break;
        case CandumpLine::Kind::Fd: leaveOut("FD frames"); break;
        case CandumpLine::Kind::Error: leaveOut("error frames"); break;
        case CandumpLine::Kind::Bad: leaveOut("lines that are no frame"); break;
        case CandumpLine::Kind::Frame: {
            const int64_t before = parsed_;
            parsed_ = line.ticks.value_or(parsed_ + spacing_);
            if (ahead_ && parsed_ - before > kSuspiciousGap)
                fmt::print(stderr, "vu source: {}: the time jumps by {} s\n", where(),
                           (parsed_ - before) / kTicksPerSecond);
            return Timed{parsed_, line.frame};
        }
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
                   "Example: vu source candump drive.log --listen unix:run/can0.sock --speed 10");
    auto options = std::make_shared<CandumpOptions>();
    kind->add_option("FILE", options->file, "the log")->required();
    kind->add_option("--spacing", options->spacing, "seconds between frames without a time [0.001]");
    kind->add_option("--tail", options->tail,
                     "seconds from the last frame to the time-only record at the end: values of the last "
                     "frames\nshow in channels whose sample period is not longer [0.01]");
    const auto common = addCommonOptions(*kind);
    kind->callback([options, common, &chosen] {
        chosen = [options, common] {
            for (const double seconds : {options->spacing, options->tail})
                if (!(seconds >= 0.0 && seconds <= 60.0))
                    throw InputError(
                        fmt::format("--spacing, --tail: expected 0 to 60 seconds, got {}", seconds));
            CandumpProducer producer(*options);
            return serve(common->settled(), producer);
        };
    });
}

} // namespace vu
