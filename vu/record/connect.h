// The recorder's end of the channels' sockets.
#pragma once

#include <functional>
#include <vector>

#include "vu/description/description.h"
#include "vu/record/children.h"
#include "vu/support/descriptor.h"

namespace vu {

// Connects to the sources of all channels, in order, trying again until they listen or the description's
// connect_timeout is over. `alive` is called between tries: it lets the loop run and throws if the wait is
// pointless. The sockets are non-blocking. Throws std::runtime_error, which names the channel.
std::vector<Descriptor> connectAll(const Description &test, Children &children,
                                   const std::function<void(const Channel &)> &alive);

} // namespace vu
