// The sources that `vu run` starts: one process for each channel that names one.
#pragma once

#include <ev.h>
#include <list>
#include <string>
#include <sys/types.h>

#include "vu/description/description.h"

namespace vu {

class Children {
public:
    Children();
    ~Children(); // ends what still runs
    Children(const Children &) = delete;
    Children &operator=(const Children &) = delete;

    // Starts the source of `channel` as another process of this very command.
    void start(const Channel &channel);

    struct Child {
        std::string channel;
        pid_t pid = -1;
        bool running = true;
        int status = 0;          // as waitpid() gives it
        bool ended_here = false; // by a signal of ours
        ev_child watcher{};
    };
    Child *find(const std::string &channel);
    bool anyRunning() const;
    // Asks what still runs to end; with `hard` it has no choice.
    void terminate(bool hard);

private:
    std::list<Child> children_; // the loop keeps the watchers' addresses
    std::string command_;
};

// "exit status 2", "signal 9"
std::string describeEnd(int status);

} // namespace vu
