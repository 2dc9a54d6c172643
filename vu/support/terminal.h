// How wide what is printed may be.
#pragma once

#include <cstddef>

namespace vu {

// Characters in a line of the terminal that standard output is; else what COLUMNS says, else 80.
size_t terminalWidth();
// The same for tables: without a terminal, and without COLUMNS, nothing limits them.
size_t outputWidth();

} // namespace vu
