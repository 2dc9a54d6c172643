// Misbehaviour on demand, to see what a recorder makes of it: split, stall, drop, garble and close, each with
// its number, in any combination. Everything is counted, so that a test knows what must be missing.
#pragma once

#include <cstdint>
#include <optional>
#include <string>
#include <vector>

#include "vu/source/serve/wire_writer.h"

namespace vu {

struct FaultSpec {
    uint64_t splitBytes = 0;   // no send is larger; 0: not split
    double stallSeconds = 0.0; // how long nothing goes out
    double stallAtSeconds = 1; // and from when on
    uint64_t dropEvery = 0;    // every Nth record is left out
    uint64_t garbleEvery = 0;  // one bit of the body of every Nth record is turned
    uint64_t closeRecords = 0; // the connection ends in the middle of the record after so many; 0: never
    static const char *help(); // the grammar in a line
};

// "split=7,stall=2@1.5,drop=100,garble=50,close=1000". Throws InputError, which names the word.
FaultSpec parseFaults(const std::string &text);

// Drop, garble and close, applied to records on their way; split and stall are the connection's.
class FaultyRecords {
public:
    FaultyRecords(const FaultSpec &spec, uint64_t seed) : spec_(spec), seed_(seed) {}

    // Appends what is left of the records of `wire` to `out`. False: the connection ends after it.
    bool pass(const WireWriter &wire, std::vector<uint8_t> &out);
    uint64_t records() const { return records_; }
    // "3 records dropped", for standard error; empty if nothing was done.
    std::vector<std::string> notes() const;

private:
    void garble(uint8_t *record, size_t size);

    FaultSpec spec_;
    uint64_t seed_;
    uint64_t records_ = 0;
    uint64_t dropped_ = 0;
    uint64_t garbled_ = 0;
};

} // namespace vu
