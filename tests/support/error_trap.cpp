#include "tests/support/error_trap.h"

#include <gtest/gtest.h>

#include "libvu/core/callbacks.h"

namespace vu::test {

namespace {

struct Caught {
    std::vector<std::string> texts, critical, disconnects;
    std::vector<std::pair<std::string, double>> rezeros;
} caught;

} // namespace

ErrorTrap::ErrorTrap()
{
    caught = {};
    libvuErrorCallback = [](const char *text) { return caught.texts.emplace_back(text), 1; };
    libvuCriticalErrorCallback = [](const char *text) { return caught.critical.emplace_back(text), 1; };
    libvuChannelDisconnectCallback = [](const char *name) {
        return caught.disconnects.emplace_back(name), 1;
    };
    libvuRezeroCallback = [](const char *name, double zero) {
        return caught.rezeros.emplace_back(name, zero), 1;
    };
}

ErrorTrap::~ErrorTrap()
{
    for (const auto &texts : {caught.texts, caught.critical})
        for (const auto &text : texts)
            ADD_FAILURE() << "reported and not expected: " << text;
    libvuErrorCallback = libvuCriticalErrorCallback = nullptr;
    libvuChannelDisconnectCallback = nullptr;
    libvuRezeroCallback = nullptr;
}

std::vector<std::string> ErrorTrap::texts()
{
    return std::exchange(caught.texts, {});
}
std::vector<std::string> ErrorTrap::critical()
{
    return std::exchange(caught.critical, {});
}
std::vector<std::string> ErrorTrap::disconnects()
{
    return std::exchange(caught.disconnects, {});
}
std::vector<std::pair<std::string, double>> ErrorTrap::rezeros()
{
    return std::exchange(caught.rezeros, {});
}

} // namespace vu::test
