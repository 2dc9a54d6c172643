// The sources that `vu run` starts: one process for each channel that names one.
//
// The recorder makes the socket on which a source listens, and the source inherits it: no name in the file
// system, nobody else's source in its place, and nothing that a source whose recorder was killed could go on
// serving. On a second descriptor the source gives account of its input.
#pragma once

#include <ev.h>
#include <list>
#include <string>
#include <sys/types.h>
#include <vector>

#include "vu/description/description.h"
#include "vu/support/account.h"
#include "vu/support/descriptor.h"

namespace vu {

class Children {
public:
    Children();
    ~Children(); // ends what still runs
    Children(const Children &) = delete;
    Children &operator=(const Children &) = delete;

    // Starts the source of `channel` as another process of this very command, in a process group of its own.
    void start(const Channel &channel);

    struct Child {
        std::string channel;
        pid_t pid = -1;
        bool running = true;
        int status = 0;          // as waitpid() gives it
        bool ended_here = false; // by a signal of ours
        bool listening = false;  // it said so: whoever connects now is served at once
        Account account;
        std::vector<std::string> notes; // what it had to say besides
        ev_child watcher{};
        ev_io account_watcher{};
        Descriptor socket; // on which it listens, until it has its reader
        Descriptor account_end;
        std::string unread; // of the account, a line that has not ended yet
    };
    Child *find(const std::string &channel);
    bool anyRunning() const;
    // Asks what still runs to end; with `hard` it has no choice.
    void terminate(bool hard);
    // A connection to the source, non-blocking; empty, with errno set, if it cannot be had now.
    static Descriptor connectTo(Child &child);
    // What each channel's source says of its input, in the order of the test; of sources from elsewhere
    // nothing is known. Takes in what the sources wrote last.
    std::vector<Account> accounts(const Description &test);

private:
    void watch(Child &child);

    std::list<Child> children_; // the loop keeps the watchers' addresses
    std::string command_;
};

// "exit status 2", "signal 9"
std::string describeEnd(int status);

} // namespace vu
