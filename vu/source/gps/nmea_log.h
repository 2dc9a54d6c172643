// The log of a receiver: sentences, or sentences after the times at which they arrived.
#pragma once

#include <optional>
#include <string>
#include <string_view>

namespace vu {

struct NmeaLine {
    enum class Kind {
        Sentence,
        Blank,       // nothing in it
        Comment,     // it begins with "#"
        BadChecksum, // a sentence whose checksum is wrong
        Bad,         // no sentence
    } kind = Kind::Bad;
    std::optional<int64_t> arrival; // ticks since 1970-01-01, where the line begins with a time
    std::string_view sentence;      // of the line, from its "$" on
};

NmeaLine parseNmeaLine(std::string_view line);

// When the fixes were made to which the sentences of a plain log belong: sentences of one time of day
// together, the next ones as much later as the time of day says. Whole seconds of the day are whole seconds
// here, also over midnight. A sentence without a time belongs to the fix before it, unless its kind begins a
// new round; then, as after a time of day that is set back, the next second counts.
class FixTimes {
public:
    // Ticks from the whole second before the first fix. Never falls.
    int64_t of(std::string_view sentence);

private:
    struct Fix {
        int64_t timeOfDay; // ticks since midnight
        int64_t ticks;     // what was answered for it
    };
    int64_t now_ = 0;
    std::optional<Fix> fix_; // the latest whose time of day is known
    std::string round_;      // the kind of sentence that begins a round
};

} // namespace vu
