/* The smallest host in C: one channel, one consumer. Prints the first and the last sample of every frame.
 *
 *     vu source sim --listen unix:/tmp/sine.sock --data-type sequential_float32 --sample-rate 1000 --duration
 * 2 &
 *     ./minimal_host /tmp/sine.sock
 */
#include <ev.h>
#include <fcntl.h>
#include <signal.h>
#include <stdio.h>
#include <stdlib.h>
#include <string.h>
#include <sys/socket.h>
#include <sys/un.h>
#include <unistd.h>

#include <libvu/libvu.h>

static const char stanza[] = "{\"name\":\"sine\",\"data_type\":\"sequential_float32\",\"connector\":\"sim\","
                             "\"sample_rate\":1000}";

static int32_t onError(const char *text)
{
    fprintf(stderr, "libvu: %s\n", text);
    return 1; /* taken over: the library neither logs it nor raises a signal */
}

static int32_t onDisconnect(const char *name)
{
    fprintf(stderr, "%s: the source has ended\n", name);
    ev_break(ev_default_loop(0), EVBREAK_ALL);
    return 1;
}

static int connectTo(const char *path)
{
    struct sockaddr_un address = {.sun_family = AF_UNIX};
    snprintf(address.sun_path, sizeof address.sun_path, "%s", path);
    int fd = socket(AF_UNIX, SOCK_STREAM, 0);
    if (fd < 0 || connect(fd, (struct sockaddr *)&address, sizeof address) != 0 ||
        fcntl(fd, F_SETFL, O_NONBLOCK) != 0) {
        perror(path);
        exit(1);
    }
    return fd;
}

static void takeFrames(Pipe *pipe)
{
    for (Frame *frame; (frame = pipeGetFrame(pipe)) != NULL; frameDelete(frame)) {
        const float *samples = frame->data;
        printf("sample %lld: %g ... %g\n", (long long)frame->start, (double)samples[0],
               (double)samples[frame->length - 1]);
    }
}

static void onTimer(struct ev_loop *loop, ev_timer *timer, int events)
{
    (void)loop, (void)events;
    takeFrames(timer->data);
}

int main(int argc, char **argv)
{
    if (argc != 2)
        return fprintf(stderr, "usage: minimal_host SOCKET\n"), 2;
    signal(SIGPIPE, SIG_IGN);
    libvuErrorCallback = libvuCriticalErrorCallback = onError;
    libvuChannelDisconnectCallback = onDisconnect;

    int fd = connectTo(argv[1]);
    ProxyNode *node = proxyNode_Create(stanza, fd, 10.0); /* ten frames a second */
    if (!node)
        return 1;
    Pipe *pipe = pipeAttachPipe(&node->pipes);
    ev_timer timer;
    ev_timer_init(&timer, onTimer, 0.1, 0.1);
    timer.data = pipe;
    ev_timer_start(ev_default_loop(0), &timer);
    ev_run(ev_default_loop(0), 0);

    takeFrames(pipe); /* what came since the timer last fired */
    proxyNode_Stop(node);
    pipeDetachPipe(&node->pipes, pipe);
    if (node->fd >= 0)
        close(node->fd);
    frameDelete(node->frame);
    free(node->inbuf.buf), free(node->name), free(node->watcher), free(node);
    return 0;
}
