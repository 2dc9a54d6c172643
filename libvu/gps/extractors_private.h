// The functions of the receivers' tables. A family is one template; its parameters are what a row differs by.
#pragma once

#include <cstdint>
#include <span>

#include "libvu/gps/decimal_private.h"
#include "libvu/gps/extractors.h"

namespace libvu {

using Tokens = const char *const *;

// The channels that a receiver offers, in the order in which connectors are matched; empty: no such receiver.
std::span<const GpsExtractor> receiverRows(const char *receiver);

// Bit 0: the latest fix of a "$GPGGA" was good. Bit 1: the latest status of a "$GPRMC" was. UTC channels have
// values while both are set. One word for all channels, which nothing resets.
extern uint32_t utcStatus;

inline bool isEmpty(const char *field)
{
    return *field == '\0';
}

// Without a value: empty, or the checksum follows at once.
inline bool isBlank(const char *field)
{
    return *field == '\0' || *field == '*';
}

inline void yield(GpsExtractor *row, double number)
{
    row->value.number = number;
    row->valid = 1;
}

inline void yieldNoNumber(GpsExtractor *row)
{
    row->value.number = 0.0;
    row->valid = 0;
}

// Whether a sentence may be used at all.
using Gate = bool (*)(Tokens tokens);

inline bool rmcIsActive(Tokens tokens)
{
    return tokens[2][0] == 'A';
}

inline bool ggaHasFix(Tokens tokens)
{
    return !isEmpty(tokens[6]) && numberOf(tokens[6]) > 0.0;
}

// Field numbers below 0 count from the end of the sentence: -1 is the last field.
template <int Field>
inline const char *fieldOf(Tokens tokens, int32_t count)
{
    const int32_t index = Field < 0 ? count + Field : Field;
    return index < 0 ? "" : tokens[index];
}

template <int Field>
void plainNumber(GpsExtractor *row, Tokens tokens, int32_t count)
{
    const char *field = fieldOf<Field>(tokens, count);
    if (isBlank(field))
        return yieldNoNumber(row);
    yield(row, numberOf(field));
}

// Without a fix the value stays as it was.
template <int Field>
void ggaNumber(GpsExtractor *row, Tokens tokens, int32_t count)
{
    row->valid = 0;
    if (ggaHasFix(tokens))
        plainNumber<Field>(row, tokens, count);
}

inline constexpr double kAsSent = 1.0;

template <int Field, const double &Factor = kAsSent>
void rmcNumber(GpsExtractor *row, Tokens tokens, int32_t)
{
    if (!rmcIsActive(tokens) || isBlank(tokens[Field]))
        return yieldNoNumber(row);
    yield(row, numberOf(tokens[Field]) * Factor);
}

// Degrees and minutes without a gap, "ddmm.mmm", with the hemisphere in the next field.
template <Gate Usable, int Field, size_t DegreeDigits, char Negative>
void position(GpsExtractor *row, Tokens tokens, int32_t)
{
    row->valid = 0;
    const char *coordinate = tokens[Field];
    const char *hemisphere = tokens[Field + 1];
    if (!Usable(tokens) || isEmpty(coordinate) || isEmpty(hemisphere))
        return;
    const double sign = *hemisphere == Negative ? -1.0 : 1.0;
    const double degrees = numberInFirst<DegreeDigits>(coordinate);
    const double minutes = numberOf(textFrom(coordinate, DegreeDigits));
    yield(row, sign * (degrees + minutes / 60.0));
}

template <Gate Usable, int Field>
constexpr auto latitude = position<Usable, Field, 2, 'S'>;
template <Gate Usable, int Field>
constexpr auto longitude = position<Usable, Field, 3, 'W'>;

// Of field 9 of a "$GPRMC", ddmmyy.
void utcDay(GpsExtractor *row, Tokens tokens, int32_t count);
void utcMonth(GpsExtractor *row, Tokens tokens, int32_t count);
void utcYear(GpsExtractor *row, Tokens tokens, int32_t count);

// Of the time of day, hhmmss.sss, in field 1, while `utcStatus` allows it.
void utcNanoseconds(GpsExtractor *row, Tokens tokens, int32_t count);
void utcSecondsFloor(GpsExtractor *row, Tokens tokens, int32_t count);
void utcSeconds(GpsExtractor *row, Tokens tokens, int32_t count);
void utcMinute(GpsExtractor *row, Tokens tokens, int32_t count);
void utcHour(GpsExtractor *row, Tokens tokens, int32_t count);

void magneticVariation(GpsExtractor *row, Tokens tokens, int32_t count); // degrees, east negative
void faaMode(GpsExtractor *row, Tokens tokens, int32_t count);           // code of the character
void trigger(GpsExtractor *row, Tokens tokens, int32_t count);           // 1.0: field 3 is 1 or 3
void ppsSyncActive(GpsExtractor *row, Tokens tokens, int32_t count);     // 1.0: times are tied to pulses
void utcDateTime(GpsExtractor *row, Tokens tokens, int32_t count); // the one text: 2094-03-23T12:35:19.00

} // namespace libvu
