#include "libvu/gps/extractors.h"

#include <cstdlib>
#include <cstring>

#include "libvu/core/report.h"
#include "libvu/core/saturate_private.h"
#include "libvu/gps/extractors_private.h"

namespace libvu {

uint32_t utcStatus = 0;

namespace {

constexpr uint32_t kGgaHasFix = 1;
constexpr uint32_t kRmcIsActive = 2;
constexpr size_t kDateForm = 6; // ddmmyy
constexpr size_t kTimeForm = 6; // hhmmss

bool isTooShort(const char *field, size_t form)
{
    return isEmpty(textFrom(field, form - 1));
}

// The date of a sentence that may be used, else null.
const char *rmcDate(GpsExtractor *row, Tokens tokens)
{
    row->valid = 0;
    return rmcIsActive(tokens) && !isTooShort(tokens[9], kDateForm) ? tokens[9] : nullptr;
}

void setBit(uint32_t &word, uint32_t bit, bool on)
{
    word = on ? word | bit : word & ~bit;
}

// A UTC row sees several sentences of a fix: some say how good the fix is, another one delivers the value.
void learnStatus(uint32_t &status, Tokens tokens)
{
    if (std::strstr(tokens[0], "$PRTL"))
        return;
    if (std::strcmp(tokens[0], "$GPGGA") == 0)
        setBit(status, kGgaHasFix, numberOf(tokens[6]) != 0.0);
    else
        setBit(status, kRmcIsActive, rmcIsActive(tokens));
}

// The seconds in the time of day, "ss.sss", or null where a UTC channel has no value.
const char *utcSecondsText(GpsExtractor *row, Tokens tokens)
{
    yieldNoNumber(row);
    const char *time = tokens[1];
    const char *point = std::strchr(time, '.');
    if (!point)
        return nullptr;
    auto &status = *static_cast<uint32_t *>(row->scratch);
    learnStatus(status, tokens);
    if (status != (kGgaHasFix | kRmcIsActive) || point < time + kTimeForm)
        return nullptr;
    return point - 2;
}

double wholeNumber(double value)
{
    return static_cast<double>(saturated<uint64_t>(value));
}

} // namespace

void utcDay(GpsExtractor *row, Tokens tokens, int32_t)
{
    if (const char *date = rmcDate(row, tokens))
        yield(row, numberInFirst<2>(date));
}

void utcMonth(GpsExtractor *row, Tokens tokens, int32_t)
{
    if (const char *date = rmcDate(row, tokens))
        yield(row, numberInFirst<2>(date + 2));
}

void utcYear(GpsExtractor *row, Tokens tokens, int32_t)
{
    if (const char *date = rmcDate(row, tokens))
        yield(row, numberOf(date + 4) + 2000.0);
}

void utcNanoseconds(GpsExtractor *row, Tokens tokens, int32_t)
{
    const char *text = utcSecondsText(row, tokens);
    if (!text)
        return;
    const double seconds = numberOf(text);
    yield(row, wholeNumber((seconds - wholeNumber(seconds)) * 1000000000.0 + 0.5));
}

void utcSecondsFloor(GpsExtractor *row, Tokens tokens, int32_t)
{
    if (const char *text = utcSecondsText(row, tokens))
        yield(row, wholeNumber(numberOf(text)));
}

void utcSeconds(GpsExtractor *row, Tokens tokens, int32_t)
{
    if (const char *text = utcSecondsText(row, tokens))
        yield(row, numberOf(text));
}

void utcMinute(GpsExtractor *row, Tokens tokens, int32_t)
{
    if (utcSecondsText(row, tokens))
        yield(row, numberInFirst<2>(tokens[1] + 2));
}

void utcHour(GpsExtractor *row, Tokens tokens, int32_t)
{
    if (utcSecondsText(row, tokens))
        yield(row, numberInFirst<2>(tokens[1]));
}

void magneticVariation(GpsExtractor *row, Tokens tokens, int32_t)
{
    yieldNoNumber(row);
    if (!rmcIsActive(tokens) || isEmpty(tokens[11]))
        return;
    const double sign = tokens[11][0] == 'E' ? -1.0 : 1.0;
    yield(row, sign * numberOf(tokens[10]));
}

void faaMode(GpsExtractor *row, Tokens tokens, int32_t count)
{
    row->valid = 0;
    if (count > 12) // old receivers end before this field
        yield(row, static_cast<unsigned char>(tokens[12][0]));
}

void trigger(GpsExtractor *row, Tokens tokens, int32_t)
{
    if (isBlank(tokens[3]))
        return yieldNoNumber(row);
    const double edges = numberOf(tokens[3]);
    yield(row, edges == 1.0 || edges == 3.0 ? 1.0 : 0.0);
}

void ppsSyncActive(GpsExtractor *row, Tokens, int32_t)
{
    yield(row, row->ts_state && row->ts_state->pps.unsynced != 1 ? 1.0 : 0.0);
}

void utcDateTime(GpsExtractor *row, Tokens tokens, int32_t)
{
    row->value.text = nullptr;
    row->valid = 0;
    const char *time = tokens[1];
    const char *date = tokens[9];
    if (!rmcIsActive(tokens) || isTooShort(time, kTimeForm) || isTooShort(date, kDateForm))
        return;
    std::free(row->scratch);
    char *text;
    asprintf_or_die(&text, "20%c%c-%c%c-%c%cT%c%c:%c%c:%s", date[4], date[5], date[2], date[3], date[0],
                    date[1], time[0], time[1], time[2], time[3], time + 4);
    row->scratch = text;
    row->value.text = text;
    row->valid = 1;
}

} // namespace libvu
