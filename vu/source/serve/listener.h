// The socket on which a source waits for its one reader: one of its own, or one that the recorder made and
// handed down when it started the source.
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
    // Waits on a listening unix socket that this process inherited, for the process that started it and for
    // nobody else. Throws InputError if the descriptor is no such socket.
    explicit Listener(int inherited);
    ~Listener(); // takes the name of its own unix socket away
    Listener(const Listener &) = delete;
    Listener &operator=(const Listener &) = delete;

    const Address &address() const { return address_; } // with the port that the system chose
    // Waits for the reader; further ones are refused from then on. Empty if a signal asked to end.
    Descriptor accept(const StopSignals &signals);

private:
    void bindUnix();
    void bindTcp();
    bool isWanted(int reader) const;

    Address address_;
    Descriptor socket_;
    bool ownsPath_ = false;
    bool inherited_ = false;
};

} // namespace vu
