// The vocabulary of the GPS tests: what receivers say, and traps for what the library reports.
#pragma once

#include <fmt/format.h>
#include <gmock/gmock.h>

#include "tests/gps/receiver.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"
#include "tests/support/temp_dir.h"

namespace vu::test {

// A sentence with every field that a row reads. `changes` is "9=,12=*6A" and the like; "#12" leaves 12
// fields.
inline std::string sentence(const std::string &id, const std::string &changes = "")
{
    const int own = id.back(); // so that no $PRTL sentence can pass for another
    const double third = own == 'T' ? 3.0 : own + 0.5;
    Strings fields =
        split(id == "$GPRMC"   ? "$GPRMC,101512.5,A,5230.5000,N,01322.7500,E,10.0,90.0,150324,2.0,E,A*6A"
              : id == "$GPGGA" ? "$GPGGA,101512.5,5230.5000,S,01322.7500,W,2,08,0.9,545.4,M,46.9,M,,*47"
              : id == "$GPGSA" ? "$GPGSA,A,3,04,05,,09,12,,,24,,,,,2.5,1.3,2.1*39"
                               : fmt::format("{0},101512.5,{1}.25,{2},-{1}.75,7*55", id, own, third),
              ',');
    for (const std::string &change : split(changes, ',')) {
        const size_t number = std::stoul(change.substr(change[0] == '#'));
        if (change[0] == '#')
            fields.resize(number);
        else
            fields.at(number) = change.substr(change.find('=') + 1);
    }
    return fmt::format("{}", fmt::join(fields, ","));
}

class Gps : public testing::Test {
protected:
    ErrorTrap errors;
    AllocationFaults memory;
    Receiver receiver;
};

} // namespace vu::test
