// What must hold of a record whenever nobody is working on it, checked in builds for tests and fuzzing.
#pragma once

#include <cstdio>
#include <cstdlib>

namespace libvu {

#ifdef VU_CHECK_INVARIANTS
constexpr bool kChecksInvariants = true;
#else
constexpr bool kChecksInvariants = false;
#endif

// Looks at a record when the work on it begins and when it ends. `brokenRule` names a rule that does not
// hold, or gives null.
template <typename Record, const char *(*brokenRule)(const Record &)>
class InvariantCheck {
public:
    explicit InvariantCheck(const Record &record) : record_(record) { check("before"); }
    ~InvariantCheck() { check("after"); }
    InvariantCheck(const InvariantCheck &) = delete;
    InvariantCheck &operator=(const InvariantCheck &) = delete;

private:
    void check([[maybe_unused]] const char *when) const
    {
        if constexpr (kChecksInvariants) {
            if (const char *rule = brokenRule(record_)) {
                std::fprintf(stderr, "libvu: %s the work on a record this does not hold: %s\n", when, rule);
                std::abort();
            }
        }
    }

    const Record &record_;
};

} // namespace libvu
