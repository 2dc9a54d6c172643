// The smallest host in C++: one channel, one consumer. Prints the mean of every frame.
//
//     vu source sim --listen unix:/tmp/sine.sock --data-type sequential_float64 --sample-rate 1000 --duration
//     2 &
//     ./minimal_host_cpp /tmp/sine.sock
#include <csignal>
#include <cstdlib>
#include <ev.h>
#include <fcntl.h>
#include <iostream>
#include <memory>
#include <numeric>
#include <span>
#include <stdexcept>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <libvu/libvu.h>

namespace {

constexpr const char *kStanza =
    R"({"name": "sine", "data_type": "sequential_float64", "connector": "sim", "sample_rate": 1000})";

int connectTo(const std::string &path)
{
    sockaddr_un address{};
    address.sun_family = AF_UNIX;
    path.copy(address.sun_path, sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) != 0 ||
        fcntl(fd, F_SETFL, O_NONBLOCK) != 0)
        throw std::runtime_error("can not connect to " + path);
    return fd;
}

// What the library has no operation for is the host's to release.
struct NodeRelease {
    void operator()(ProxyNode *node) const
    {
        proxyNode_Stop(node);
        while (node->pipes.first)
            pipeDetachPipe(&node->pipes, node->pipes.first);
        if (node->fd >= 0)
            close(node->fd);
        frameDelete(node->frame);
        for (void *owned : {static_cast<void *>(node->inbuf.buf), static_cast<void *>(node->name),
                            static_cast<void *>(node->watcher), static_cast<void *>(node)})
            std::free(owned);
    }
};

void takeFrames(Pipe *pipe)
{
    while (const std::unique_ptr<Frame, void (*)(Frame *)> frame{pipeGetFrame(pipe), frameDelete}) {
        const std::span samples(static_cast<const double *>(frame->data), frame->length);
        std::cout << "sample " << frame->start << ": mean "
                  << std::accumulate(samples.begin(), samples.end(), 0.0) /
                         static_cast<double>(samples.size())
                  << '\n';
    }
}

} // namespace

int main(int argc, char **argv)
try {
    if (argc != 2)
        throw std::runtime_error("usage: minimal_host_cpp SOCKET");
    std::signal(SIGPIPE, SIG_IGN);
    libvuErrorCallback = libvuCriticalErrorCallback = [](const char *text) {
        std::cerr << "libvu: " << text << '\n';
        return 1;
    };
    libvuChannelDisconnectCallback = [](const char *) {
        return ev_break(ev_default_loop(0), EVBREAK_ALL), 1;
    };

    const std::unique_ptr<ProxyNode, NodeRelease> node(proxyNode_Create(kStanza, connectTo(argv[1]), 10.0));
    if (!node)
        return 1;
    Pipe *pipe = pipeAttachPipe(&node->pipes);
    ev_timer timer;
    ev_timer_init(
        &timer, [](struct ev_loop *, ev_timer *fired, int) { takeFrames(static_cast<Pipe *>(fired->data)); },
        0.1, 0.1);
    timer.data = pipe;
    ev_timer_start(ev_default_loop(0), &timer);
    ev_run(ev_default_loop(0), 0);
    takeFrames(pipe); // what came since the timer last fired
    return 0;
} catch (const std::exception &error) {
    std::cerr << error.what() << '\n';
    return 2;
}
