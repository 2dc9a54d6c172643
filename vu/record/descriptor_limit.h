// Room for the descriptors of a test.
#pragma once

#include <cstddef>

namespace vu {

// Raises the limit of open descriptors as far as a test of so many channels needs it. Throws InputError,
// which says how the limit is raised, where the system does not let this process do it.
void makeRoomForChannels(size_t channels);

} // namespace vu
