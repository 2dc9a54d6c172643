// The library's four callbacks, led to whoever wants to hear them. Set before anything else: an error that
// nobody takes would end the process.
#pragma once

#include <functional>
#include <string>
#include <vector>

namespace vu {

struct HostCallbacks {
    std::function<void(const char *text)> error; // errors and critical errors alike
    std::function<void(const char *name, double zero)> rezero;
    std::function<void(const char *name)> disconnected;
    std::function<void()> failed; // one of the others has thrown; throws nothing itself
};

// Replaces what was set before. An empty function takes a call without doing anything.
void setHostCallbacks(HostCallbacks callbacks);

// Gathers what the library reports while it lives, then puts the callbacks back to doing nothing.
class GatheredErrors {
public:
    GatheredErrors();
    ~GatheredErrors() { setHostCallbacks({}); }
    GatheredErrors(const GatheredErrors &) = delete;
    GatheredErrors &operator=(const GatheredErrors &) = delete;

    // The texts since the last call, in one line.
    std::string take();

private:
    std::vector<std::string> texts_;
};

} // namespace vu
