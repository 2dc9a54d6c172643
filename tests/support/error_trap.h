// Takes what the library reports, so that a test can hold it against what should have been said.
#pragma once

#include <gtest/gtest.h>
#include <string>
#include <utility>
#include <vector>

#include "libvu/core/callbacks.h"

namespace vu::test {

// One at a time. A text that no check has looked at fails the test at the end.
class ErrorTrap {
public:
    ErrorTrap()
    {
        libvuErrorCallback = [](const char *text) { return texts_.emplace_back(text), 1; };
        libvuCriticalErrorCallback = [](const char *text) { return critical_.emplace_back(text), 1; };
        libvuChannelDisconnectCallback = [](const char *name) { return disconnects_.emplace_back(name), 1; };
        libvuRezeroCallback = [](const char *name, double zero) {
            return rezeros_.emplace_back(name, zero), 1;
        };
    }
    ~ErrorTrap()
    {
        for (const auto &left : {texts(), critical()})
            for (const auto &text : left)
                ADD_FAILURE() << "reported and not expected: " << text;
        disconnects(), rezeros();
        libvuErrorCallback = libvuCriticalErrorCallback = libvuChannelDisconnectCallback = nullptr;
        libvuRezeroCallback = nullptr;
    }
    ErrorTrap(ErrorTrap &&) = delete;

    // What has been reported since the last call, in order.
    std::vector<std::string> texts() { return std::exchange(texts_, {}); }
    std::vector<std::string> critical() { return std::exchange(critical_, {}); }
    std::vector<std::string> disconnects() { return std::exchange(disconnects_, {}); }
    std::vector<std::pair<std::string, double>> rezeros() { return std::exchange(rezeros_, {}); }

private:
    static inline std::vector<std::string> texts_, critical_, disconnects_;
    static inline std::vector<std::pair<std::string, double>> rezeros_;
};

} // namespace vu::test
