// What options of several kinds may be. All throw InputError, which names the option.
#pragma once

namespace vu {

constexpr double kLongestGap = 3600.0; // seconds, unless --longest-gap says otherwise

// Unless `value` lies between the two: seconds.
void expectSeconds(const char *option, double value, double least, double most);
// Unless it can be a longest gap: seconds above 0.
void expectLongestGap(double seconds);

} // namespace vu
