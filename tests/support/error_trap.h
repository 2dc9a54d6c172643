// Takes what the library reports, so that a test can hold it against what should have been said.
#pragma once

#include <string>
#include <utility>
#include <vector>

namespace vu::test {

// One at a time. A text that no check has looked at fails the test at the end.
class ErrorTrap {
public:
    ErrorTrap();
    ~ErrorTrap();
    ErrorTrap(const ErrorTrap &) = delete;
    ErrorTrap &operator=(const ErrorTrap &) = delete;

    // What has been reported since the last call: errors and critical errors, in order.
    std::vector<std::string> texts();
    std::vector<std::string> critical();
    std::vector<std::string> disconnects();
    std::vector<std::pair<std::string, double>> rezeros();
};

} // namespace vu::test
