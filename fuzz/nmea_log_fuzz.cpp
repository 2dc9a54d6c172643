// Any text as the log of a receiver. Besides the sanitizers' checks: a sentence lies within its line and is
// sound by itself, and the times of fixes never fall and keep the fractions of their times of day.
#include <algorithm>
#include <string_view>
#include <utility>

#include "fuzz/target.h"
#include "vu/source/gps/nmea_log.h"
#include "vu/source/gps/nmea_sentence.h"
#include "vu/source/log_time.h"

void fuzz(const uint8_t *data, size_t size)
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
        if (time && sentence.starts_with("$GPRMC,"))
            require((fix - *time) % vu::kTicksPerSecond == 0);
        require(sentence.data() >= line.data() && sentence.end() <= line.end() &&
                vu::soundnessOf(sentence) == vu::Soundness::Sound);
        require(std::exchange(latest, fix) <= fix);
    }
}
