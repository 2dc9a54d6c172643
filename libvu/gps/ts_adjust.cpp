#include "libvu/gps/ts_adjust.h"

#include <algorithm>
#include <cmath>
#include <cstring>

#include "libvu/core/owned_private.h"
#include "libvu/core/saturate_private.h"
#include "libvu/core/wire_private.h"
#include "libvu/gps/decimal_private.h"
#include "libvu/gps/ts_adjust_private.h"

namespace {

constexpr double kTicks = static_cast<double>(libvu::kTicksPerSecond);
constexpr double kNever = -1000.0;            // below any time of day and any time handed out
constexpr double kHeartbeatLatency = 0.33333; // s
constexpr double kSameFix = 0.25;             // s that the sentences of a fix may come after their pulse
constexpr double kLongestGap = 1.0;           // s between sentences with a time of day, in step
constexpr double kLongestJump = 5.0;          // s between times of day
constexpr double kDay = 86400.0;              // s
constexpr double kNextPulse = 0.9;            // s after the latest pulse from which on one is the next
constexpr double kMissedLimit = 100.0;        // s to count on without a pulse
constexpr double kWholeSecond = 1e-8;         // s
constexpr int32_t kLastSlot = GPS_PULSES_KEPT - 1;
constexpr size_t kLongestText = 4084; // characters that are looked at in the host's sentences

// Without `hasTime`, field 1 is no time of day, or one that need not be that of the fix.
struct KnownSentence {
    char id[8];
    bool hasTime;
};
constexpr KnownSentence kKnownSentences[] = {
    {"$GPRMC", true},  {"$GPGGA", true}, {"$GPGLL", false}, {"$GPGSA", false},
    {"$GPVTG", false}, {"$PRTLH", true}, {"$PRTLS", true},  {"$PRTLR", true},
    {"$PRTLV", true},  {"$PRTLA", true}, {"$PRTLG", true},  {"$PRTLT", true},
};

double toSeconds(int64_t ticks)
{
    return static_cast<double>(ticks) / kTicks;
}

int64_t toTicks(double seconds)
{
    return libvu::saturated<int64_t>(seconds * kTicks);
}

void start(GpsTsAdjust &adjust)
{
    adjust = {};
    adjust.pps.unsynced = 1;
    adjust.pps.newest_pulse = kLastSlot;
    adjust.pps.utc_prev = kNever;
    adjust.heartbeat_latency = kHeartbeatLatency;
    adjust.last_output = kNever;
}

void carryOn(GpsPpsState &pps, const GpsTsMessage &message)
{
    pps.last_message_time = message.message_time;
    pps.last_adjusted_time = message.adjusted_time;
}

// The pulses stay in the ring; with a count of 0 nothing is adjusted before the next one.
void loseStep(GpsPpsState &pps, GpsTsMessage &message)
{
    pps.unsynced = 1;
    pps.pulse_count = 0;
    pps.newest_pulse = kLastSlot;
    pps.missed_pulses = 0.0;
    pps.utc_prev = kNever;
    message.adjusted_time = message.message_time;
    carryOn(pps, message);
}

void shareFix(GpsPpsState &pps, GpsTsMessage &message)
{
    message.adjusted_time = pps.last_adjusted_time;
    pps.last_message_time = message.message_time;
}

// The latest pulse before `now`, or null. One entry more is looked at than pulses have come. It holds 0.0 or
// an old pulse; if that is what is found, the sentence is much too late for it, and step is lost.
const double *pulseBefore(const GpsPpsState &pps, double now)
{
    const int32_t entries = std::min<int32_t>(pps.pulse_count, kLastSlot) + 1;
    int32_t slot = pps.newest_pulse >= 0 && pps.newest_pulse <= kLastSlot ? pps.newest_pulse : kLastSlot;
    for (int32_t i = 0; i < entries; i++) {
        if (pps.pulse_times[slot] < now)
            return &pps.pulse_times[slot];
        slot = slot == 0 ? kLastSlot : slot - 1;
    }
    return nullptr;
}

void adjustWholeSecond(GpsPpsState &pps, GpsTsMessage &message)
{
    const double now = message.message_time;
    const double *pulse = pulseBefore(pps, now);
    if (!pulse)
        return loseStep(pps, message);
    if (pps.unsynced) {
        pps.last_pulse = *pulse;
    } else if (pps.missed_pulses + *pulse - pps.last_pulse >= kNextPulse) {
        pps.last_pulse = *pulse;
        pps.missed_pulses = 0.0;
    } else {
        pps.missed_pulses += 1.0;
        pps.last_pulse += 1.0;
    }
    pps.sync_pulse = pps.last_pulse;
    pps.sync_utc = pps.utc_now;
    // Adding the time of day and subtracting it again rounds as it does for the sentences between whole
    // seconds, so that sentences of one instant get the same time.
    message.adjusted_time = (pps.utc_now + pps.last_pulse) - pps.utc_now;
    const double latency = now - pps.last_pulse;
    if (latency <= 0.0 || latency > kSameFix || pps.missed_pulses > kMissedLimit)
        return loseStep(pps, message);
    pps.unsynced = 0;
    carryOn(pps, message);
}

void adjustBetweenSeconds(GpsPpsState &pps, GpsTsMessage &message)
{
    if (!pps.unsynced)
        message.adjusted_time = (pps.sync_pulse + pps.utc_now) - pps.sync_utc;
    carryOn(pps, message);
}

// hhmmss.sss in seconds of the day; what the field does not have is 0.
double timeOfDay(const GpsTsMessage &message)
{
    char text[sizeof message.utc_field + 1] = {};
    std::memcpy(text, message.utc_field, sizeof message.utc_field);
    const double minutes = libvu::numberInFirst<2>(libvu::textFrom(text, 2));
    const double hours = libvu::numberInFirst<2>(text);
    return (minutes * 60.0 + hours * 3600.0) + libvu::numberOf(libvu::textFrom(text, 4));
}

void adjustByTimeOfDay(GpsPpsState &pps, GpsTsMessage &message)
{
    const double utc = timeOfDay(message);
    if (!std::isfinite(utc)) {
        message.rejected = 1;
        return;
    }
    const double before = pps.utc_prev;
    double previous = before;
    if (before == kNever)
        previous = utc;
    else if (utc < before)
        previous = before - kDay; // midnight
    pps.utc_prev = previous;
    pps.utc_now = utc;
    if (std::fabs(utc - previous) > kLongestJump) {
        message.rejected = 1;
        pps.utc_prev = before;
        return;
    }
    if (!pps.unsynced) {
        if (message.message_time - pps.last_message_time > kLongestGap)
            return loseStep(pps, message);
        if (utc == previous)
            return shareFix(pps, message);
    }
    pps.utc_prev = utc;
    if (std::fabs(std::fmod(utc, 1.0)) < kWholeSecond)
        adjustWholeSecond(pps, message);
    else
        adjustBetweenSeconds(pps, message);
}

void adjustWithoutTimeOfDay(GpsPpsState &pps, GpsTsMessage &message)
{
    if (pps.unsynced)
        carryOn(pps, message);
    else if (message.message_time - pps.last_message_time <= kSameFix)
        shareFix(pps, message);
    else
        loseStep(pps, message);
}

const KnownSentence *findSentence(const char (&id)[sizeof(GpsTsMessage::sentence_id)], size_t length)
{
    for (const KnownSentence &known : kKnownSentences)
        if (length < sizeof known.id && std::memcmp(id, known.id, sizeof known.id) == 0)
            return &known;
    return nullptr;
}

// Id and time of day; false if the text is no sentence with two commas and a known id. What has been read by
// then stays in the message: the host can look at it there.
bool readHead(std::string_view text, GpsTsMessage &message)
{
    const size_t idEnd = text.find(',');
    if (idEnd == text.npos || idEnd >= sizeof message.sentence_id)
        return false;
    text.copy(message.sentence_id, idEnd);
    const size_t timeEnd = text.find(',', idEnd + 1);
    if (timeEnd == text.npos)
        return false;
    const std::string_view time = text.substr(idEnd + 1, timeEnd - idEnd - 1);
    if (time.size() < sizeof message.utc_field)
        time.copy(message.utc_field, time.size());
    const KnownSentence *known = findSentence(message.sentence_id, idEnd);
    if (known && !known->hasTime)
        std::memset(message.utc_field, 0, sizeof message.utc_field);
    return known != nullptr;
}

std::optional<int64_t> adjustSentence(GpsTsAdjust &adjust, std::string_view text)
{
    GpsTsMessage &message = adjust.message;
    if (!readHead(text, message))
        return std::nullopt;
    pps_recalc_nmea_msg_ts(&adjust.pps, &message);
    if (message.adjusted_time - message.message_time < -kSameFix ||
        message.adjusted_time > message.message_time || message.rejected ||
        message.adjusted_time < adjust.last_output)
        return std::nullopt;
    adjust.last_output = message.adjusted_time;
    return toTicks(message.adjusted_time);
}

void notePulse(GpsPpsState &pps, double time)
{
    pps.newest_pulse = pps.newest_pulse >= 0 && pps.newest_pulse < kLastSlot ? pps.newest_pulse + 1 : 0;
    pps.pulse_times[pps.newest_pulse] = time;
    pps.pulse_count = libvu::saturated<int32_t>(pps.pulse_count + 1.0);
}

int64_t adjustHeartbeat(GpsTsAdjust &adjust)
{
    adjust.last_output = std::max(adjust.message.message_time - adjust.heartbeat_latency, adjust.last_output);
    return toTicks(adjust.last_output);
}

GpsTsAdjust *hostState; // of gpsAdjustNmeaTimestamp(), until the process ends

} // namespace

std::optional<int64_t> libvu::adjustTimestamp(GpsTsAdjust &adjust, std::string_view text, int64_t timestamp)
{
    adjust.message = {};
    adjust.message.message_time = toSeconds(timestamp);
    if (text.starts_with('$'))
        return adjustSentence(adjust, text);
    if (text.starts_with("#pps")) {
        notePulse(adjust.pps, adjust.message.message_time);
        return timestamp;
    }
    if (text.starts_with("#hb"))
        return adjustHeartbeat(adjust);
    return std::nullopt;
}

void pps_recalc_nmea_msg_ts(GpsPpsState *pps, GpsTsMessage *message)
{
    message->rejected = 0;
    message->adjusted_time = message->message_time;
    if (pps->pulse_count == 0)
        return; // before the first pulse everything keeps its arrival time
    if (message->utc_field[0])
        adjustByTimeOfDay(*pps, *message);
    else
        adjustWithoutTimeOfDay(*pps, *message);
}

GpsTsAdjust *gpsInitializeTsAdjust(void)
{
    auto adjust = libvu::makeZeroed<GpsTsAdjust>();
    if (adjust)
        start(*adjust);
    return adjust.release();
}

int64_t gpsAdjustNmeaTimestamp(int64_t timestamp, const char *sentence)
{
    constexpr int64_t kNoTime = -1;
    if (!sentence || timestamp < 0)
        return kNoTime;
    if (!hostState)
        hostState = gpsInitializeTsAdjust();
    if (!hostState)
        return kNoTime;
    const std::string_view text(sentence, strnlen(sentence, kLongestText));
    return libvu::adjustTimestamp(*hostState, text, timestamp).value_or(kNoTime);
}

void gpsReinitNmeaTSAdjust(void)
{
    if (hostState)
        start(*hostState);
}
