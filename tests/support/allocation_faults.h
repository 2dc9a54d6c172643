// Memory that runs out: allocations made by libvu.so itself are counted, and the n-th one can be made to
// fail.
//
// The library's import table is patched, so the C library, the parser and the test keep their memory, and it
// works under a sanitizer as well.
#pragma once

#include <cstdint>

namespace vu::test {

class AllocationFaults {
public:
    AllocationFaults(); // counting begins
    ~AllocationFaults() { failNone(); }
    AllocationFaults(AllocationFaults &&) = delete;

    // The n-th allocation from now on fails, and `more` after it; 0 is the next one.
    void failAt(int64_t n, int64_t more = 0) { first = made + n, last = first + more; }
    void failNone() { first = last = -1; }
    int64_t count() const { return made; } // since construction or reset(), failed ones included
    void reset() { made = 0; }

    static inline int64_t made = 0, first = -1, last = -1; // of the whole process
};

} // namespace vu::test
