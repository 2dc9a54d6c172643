// The socket on which a source waits for its one reader.
#pragma once

#include "vu/source/serve/stop_signals.h"
#include "vu/support/address.h"
#include "vu/support/descriptor.h"

namespace vu {

class Listener {
public:
    // Listens at once. A unix socket that nobody listens on any more is replaced, and the folder of its path
    // is made. Throws InputError or std::runtime_error, with the address in the text.
    explicit Listener(const Address &address);
    ~Listener(); // takes the unix socket's name away
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    const Address &address() const { return address_; } // with the port that the system chose
    // Waits for the reader; further ones are refused from then on. Empty if a signal asked to end.
    Descriptor accept(const StopSignals &signals);

private:
    void bindUnix();
    void bindTcp();

    Address address_;
    Descriptor socket_;
    bool ownsPath_ = false;
};

} // namespace vu
