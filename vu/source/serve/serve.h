// Serves one channel to one reader: listens, sends the marker, and then the records as they fall due.
#pragma once

#include <cstdint>
#include <optional>
#include <string>

#include "vu/source/producer.h"
#include "vu/source/serve/faults.h"

namespace vu {

// What every kind of source is given. `sampleRate`, `dataType` and `connector` are those of the channel's
// stanza.
struct ServeOptions {
    std::string listen; // "unix:PATH", "tcp:HOST:PORT" or "fd:N"
    int account = -1;   // descriptor for the account; -1: none
    std::string dataType;
    std::string connector;
    double sampleRate = 0.0; // samples per second; 0: not given
    Endian endian = Endian::Little;
    double speed = 1.0; // 0: as fast as the reader takes it
    uint64_t seed = 1;
    FaultSpec faults;
    double duration = 0.0; // seconds of source time; 0: until the data ends
    bool tryOnly = false;  // ends where it would listen
};

// Both return an ExitStatus: kDone when everything was taken or the reader said "Stop", kFailed when the
// reader went away before. An error of the producer ends the source after what it had written was sent, and
// is thrown on. The account goes to standard
// error, and to `options.account`.
int serve(const ServeOptions &options, Producer &producer);
int serve(const ServeOptions &options, LiveProducer &producer);

} // namespace vu
