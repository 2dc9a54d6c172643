#include "vu/source/gps/nmea_log.h"

#include "vu/source/gps/nmea_sentence.h"
#include "vu/source/log_time.h"

namespace vu {

namespace {

constexpr int64_t kDay = 86400 * kTicksPerSecond;

// Sentences whose first field is the time of the fix, whoever speaks.
bool bringsTime(std::string_view id)
{
    for (const std::string_view kind : {"RMC", "GGA", "GNS", "ZDA"})
        if (id.size() == 6 && id.ends_with(kind))
            return true;
    return id.starts_with("$PRTL");
}

int64_t nextSecond(int64_t ticks)
{
    return (ticks / kTicksPerSecond + 1) * kTicksPerSecond;
}

} // namespace

NmeaLine parseNmeaLine(std::string_view line)
{
    NmeaLine parsed;
    const size_t begin = line.find_first_not_of(" \t\r");
    if (begin == std::string_view::npos || line[begin] == '#') {
        parsed.kind = begin == std::string_view::npos ? NmeaLine::Kind::Blank : NmeaLine::Kind::Comment;
        return parsed;
    }
    line.remove_prefix(begin);
    line.remove_suffix(line.size() - 1 - line.find_last_not_of(" \t\r"));
    if (line.front() != '$') {
        const size_t end = line.find_first_of(" \t");
        if (end == std::string_view::npos)
            return parsed;
        parsed.arrival = parseLogTime(line.substr(0, end));
        if (!parsed.arrival)
            return parsed;
        line.remove_prefix(line.find_first_not_of(" \t", end));
    }
    const Soundness soundness = soundnessOf(line);
    if (soundness == Soundness::Sound) {
        parsed.kind = NmeaLine::Kind::Sentence;
        parsed.sentence = line;
    } else if (soundness == Soundness::WrongChecksum) {
        parsed.kind = NmeaLine::Kind::BadChecksum;
    }
    return parsed;
}

int64_t FixTimes::of(std::string_view sentence)
{
    const std::string_view id = nmeaField(sentence, 0);
    if (!bringsTime(id))
        return now_;
    const bool first = round_.empty();
    if (first)
        round_ = id;
    const auto time = parseTimeOfDay(nmeaField(sentence, 1));
    if (!time) {
        if (id == round_ && !first)
            now_ = nextSecond(now_);
        return now_;
    }
    const int64_t part = *time % kTicksPerSecond;
    if (!fix_) {
        now_ = (id == round_ && !first ? nextSecond(now_) : now_) + part;
    } else {
        int64_t step = *time - fix_->timeOfDay;
        if (step < -kDay / 2)
            step += kDay;
        const int64_t due = fix_->ticks + step;
        now_ = due >= now_ ? due : nextSecond(now_) + part;
    }
    fix_ = Fix{*time, now_};
    return now_;
}

} // namespace vu
