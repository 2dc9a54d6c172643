// Any text as the log of a receiver. Besides the sanitizers' checks: a sentence lies within its line and is
// sound by itself, and the times of fixes never fall and keep the fractions of their times of day.
#include <algorithm>
#include <cstdlib>
#include <string_view>
#include <utility>

#include "vu/source/log_time.h"
#include "vu/source/nmea_log.h"
#include "vu/source/nmea_sentence.h"

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    vu::FixTimes fixes;
    int64_t latest = 0;
    for (std::string_view log(reinterpret_cast<const char *>(data), size); !log.empty();) {
        const std::string_view line = log.substr(0, log.find('\n'));
        log.remove_prefix(std::min(log.size(), line.size() + 1));
        const auto [kind, arrival, sentence] = vu::parseNmeaLine(line);
        if (kind != vu::NmeaLine::Kind::Sentence)
            continue;
        const int64_t fix = fixes.of(sentence);
        const auto time = vu::parseTimeOfDay(vu::nmeaField(sentence, 1));
        const bool aligned =
            !sentence.starts_with("$GPRMC,") || !time || (fix - *time) % vu::kTicksPerSecond == 0;
        if (sentence.data() < line.data() || sentence.end() > line.end() || !vu::isSoundSentence(sentence) ||
            std::exchange(latest, fix) > fix || !aligned)
            std::abort();
    }
    return 0;
}
