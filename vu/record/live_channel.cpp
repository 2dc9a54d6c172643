#include "vu/record/live_channel.h"

#include <cstdlib>
#include <ev.h>
#include <fmt/format.h>
#include <fmt/ranges.h>

#include "libvu/bus/can_set.h"
#include "libvu/bus/can_signal.h"
#include "libvu/bus/xcp_set.h"
#include "libvu/core/report.h"
#include "libvu/gps/gps_signal.h"
#include "libvu/monitor/element_access.h"
#include "libvu/proxy/calibration.h"
#include "libvu/stream/stream_signal.h"
#include "vu/command.h"

namespace vu {

namespace {

void freeStream(Sequentializer *stream)
{
    if (!stream)
        return;
    frameDelete(stream->current_frame); // back to the pool
    while (Frame *frame = stream->free_frames) {
        stream->free_frames = frame->next;
        std::free(frame);
    }
    std::free(stream->clock);
    destroySequentializer(stream);
}

void detachAll(PipeList &pipes)
{
    while (pipes.first)
        pipeDetachPipe(&pipes, pipes.first);
}

// A frame with something in it to everybody who listens.
void deliver(PipeList &pipes, Frame *frame)
{
    if (frame->length == 0 || !Put_Frame(frame, &pipes))
        frameDelete(frame);
}

} // namespace

LiveChannel::LiveChannel(const Channel &channel, Descriptor socket, GatheredErrors &errors)
    : channel_(channel), socket_(std::move(socket))
{
    try {
        makeNode(errors);
        addSignals(errors);
        std::vector<Sequentializer *> streams;
        for (const Decoded &decoded : decoded_)
            if (decoded.stream)
                streams.push_back(decoded.stream);
        intake_ = std::make_unique<Intake>(*node_, channel, std::move(streams));
    } catch (...) {
        freeNode();
        throw;
    }
}

LiveChannel::~LiveChannel()
{
    freeNode();
}

void LiveChannel::makeNode(GatheredErrors &errors)
{
    errors.take();
    node_ = proxyNode_Create(channel_.stanza.c_str(), socket_.get(), channel_.pipe_rate);
    if (!node_)
        throw InputError(channel_.where + errors.take());
    if (channel_.kind == ChannelKind::kCan)
        node_->can_set = can_set_create(); // the reader needs one, with or without signals
    if (channel_.kind == ChannelKind::kXcp)
        node_->xcp_set = xcp_ip_set_create();
    if ((channel_.kind == ChannelKind::kCan && !node_->can_set) ||
        (channel_.kind == ChannelKind::kXcp && !node_->xcp_set))
        throw std::bad_alloc();
    // Only the pre-run kernels of a periodic channel look at the request, and never end it.
    if (channel_.kind == ChannelKind::kSequential)
        node_->rezero_pending = 1;
}

void LiveChannel::addSignals(GatheredErrors &errors)
{
    std::vector<std::string> refused;
    decoded_.reserve(channel_.signals.size());
    for (const Signal &signal : channel_.signals)
        if (!addSignal(signal))
            refused.push_back(signal.where + errors.take());
    if (!refused.empty())
        throw InputError(fmt::format("{}", fmt::join(refused, "\n")));
    if (node_->can_set)
        can_set_finalize(node_->can_set);
}

bool LiveChannel::addSignal(const Signal &signal)
{
    switch (channel_.kind) {
    case ChannelKind::kCan: {
        CanSetSignal *made = can_set_add_signal(node_->can_set, signal.stanza.c_str());
        if (made)
            decoded_.push_back(
                {&signal, &made->pipes, made->sequentializer, &made->rezero_pending, made->name});
        return made != nullptr;
    }
    case ChannelKind::kXcp: {
        XcpMeasurement *made = xcp_ip_set_add_measurement(node_->xcp_set, signal.stanza.c_str());
        if (made)
            decoded_.push_back({&signal, &made->pipes, made->sequentializer, nullptr, made->name});
        return made != nullptr;
    }
    case ChannelKind::kStream: return addStreamSignal(signal);
    default: return addGpsSignal(signal);
    }
}

bool LiveChannel::addGpsSignal(const Signal &signal)
{
    if (!node_->channel_aux) {
        libvuError("signals need a message_raw channel whose connector contains gps");
        return false;
    }
    GpsSignal *made = gpsSignalInit(node_, signal.stanza.c_str());
    if (!made)
        return false;
    made->next = std::exchange(node_->gps_set, made);
    int32_t *rezero = made->sequentializer ? &made->rezero_pending : nullptr;
    decoded_.push_back({&signal, &made->pipes, made->sequentializer, rezero, made->name});
    if (made->extractor)
        return true;
    libvuError("%s has no channel of the name in connector", made->source_database);
    return false;
}

bool LiveChannel::addStreamSignal(const Signal &signal)
{
    CanSignalNode *made = streamCANSignalInit(signal.stanza.c_str());
    if (!made)
        return false;
    made->proxy = node_;
    // "subscribe" takes the first signal whose stanza contains the name: the order is the description's.
    CanSignalNode **last = &node_->cs_list;
    while (*last)
        last = &(*last)->next;
    *last = made;
    decoded_.push_back({&signal, &made->pipes, made->sequentializer, &made->rezero_pending, made->name});
    return true;
}

// The library has no operation for it.
void LiveChannel::freeNode()
{
    if (!node_)
        return;
    freeSignalRecords();
    struct ev_loop *loop = ev_default_loop(0);
    ev_io_stop(loop, node_->watcher);
    if (node_->heartbeat)
        ev_timer_stop(loop, node_->heartbeat);
    if (node_->fd < 0)
        socket_.release(); // the library has closed it
    detachAll(node_->pipes);
    frameDelete(node_->frame);
    intake_.reset(); // the frames have come back to its pool
    for (void *owned :
         {static_cast<void *>(node_->inbuf.buf), static_cast<void *>(node_->name), node_->channel_aux,
          static_cast<void *>(node_->heartbeat), static_cast<void *>(node_->watcher)})
        std::free(owned);
    std::free(node_);
}

void LiveChannel::freeSignalRecords()
{
    for (const Decoded &decoded : decoded_) {
        detachAll(*decoded.pipes);
        freeStream(decoded.stream);
        std::free(decoded.name);
    }
    if (node_->can_set)
        can_set_destroy(node_->can_set);
    std::free(node_->can_set);
    xcp_ip_set_destroy(node_->xcp_set);
    while (GpsSignal *signal = node_->gps_set) {
        node_->gps_set = signal->next;
        if (signal->extractor && signal->width < 0)
            std::free(signal->extractor->scratch);
        std::free(signal->extractor);
        std::free(signal->json);
        std::free(signal->source_database);
        std::free(signal);
    }
    while (CanSignalNode *signal = node_->cs_list) {
        node_->cs_list = signal->next;
        std::free(signal->config);
        std::free(signal);
    }
}

Track LiveChannel::ownTrack()
{
    Track track;
    track.name = channel_.name;
    track.unit = channel_.unit;
    track.store = channel_.store;
    track.pipes = &node_->pipes;
    track.element = nameOf(channel_.values);
    track.element_size = node_->element_size;
    track.kind = "sequential";
    switch (channel_.kind) {
    case ChannelKind::kSequential:
    case ChannelKind::kHeldFloats:
        track.sample_rate = channel_.sample_rate;
        track.node = node_;
        if (channel_.kind == ChannelKind::kSequential)
            track.sequential = node_;
        else
            track.rezero_pending = &node_->rezero_pending;
        break;
    case ChannelKind::kFloats: track.kind = channel_.ntp ? "message_float_ntp" : "message_float"; break;
    case ChannelKind::kCan:
        track.kind = "message_can";
        track.element = "can";
        break;
    default:
        track.kind = "message_raw";
        track.element = "bytes";
        track.element_size = 0;
    }
    if (track.element.starts_with("float"))
        describeValues(track, channel_.stanza);
    return track;
}

std::vector<Track> LiveChannel::tracks()
{
    std::vector<Track> tracks;
    if (channel_.kind != ChannelKind::kXcp && channel_.kind != ChannelKind::kStream)
        tracks.push_back(ownTrack());
    for (const Decoded &decoded : decoded_) {
        Track track;
        track.name = decoded.signal->name;
        track.signal = decoded.signal;
        track.kind = decoded.stream ? "sequential" : "message_text";
        track.element = decoded.stream ? nameOf(decoded.signal->values) : "bytes";
        track.element_size = decoded.stream ? decoded.stream->element_size : 0;
        track.sample_rate = decoded.stream ? decoded.signal->sample_rate : 0.0;
        track.unit = decoded.signal->unit;
        track.parent = channel_.name;
        track.store = decoded.signal->store;
        track.pipes = decoded.pipes;
        track.stream = decoded.stream;
        track.rezero_pending = decoded.rezero_pending;
        track.comment = decoded.signal->comment;
        for (const auto &[value, text] : decoded.signal->value_texts)
            track.values[fmt::format("{}", value)] = text;
        if (decoded.stream)
            describeValues(track, decoded.signal->stanza);
        if (channel_.kind == ChannelKind::kStream) // the module calibrates, by its metainfo
            track.calibration.reset();
        if (channel_.kind == ChannelKind::kXcp && track.calibration) // which are not zeroed
            track.calibration->zero = 0.0;
        tracks.push_back(std::move(track));
    }
    return tracks;
}

void LiveChannel::stop()
{
    if (ended())
        return; // what more is sent to a peer that closed comes back as a reset, as if it had been killed
    proxyNode_Stop(node_);
    ev_io_start(ev_default_loop(0), node_->watcher);
}

void LiveChannel::deliverUnfinished()
{
    intake_->finish();
    if (Frame *frame = std::exchange(node_->frame, nullptr)) {
        // A periodic frame is in wire order and uncalibrated until it is full; a held stream's is finished.
        if (channel_.kind == ChannelKind::kSequential && node_->byte_swap)
            node_->byte_swap(node_, frame);
        if (channel_.kind == ChannelKind::kSequential && node_->apply)
            node_->apply(node_, frame);
        deliver(node_->pipes, frame);
    }
    for (const Decoded &decoded : decoded_)
        if (decoded.stream)
            if (Frame *frame = std::exchange(decoded.stream->current_frame, nullptr))
                deliver(*decoded.pipes, frame);
}

std::vector<std::unique_ptr<LiveChannel>> makeChannels(const Description &test,
                                                       std::vector<Descriptor> sockets)
{
    GatheredErrors errors;
    std::vector<std::unique_ptr<LiveChannel>> channels;
    std::vector<std::string> refused;
    for (size_t i = 0; i < test.channels.size(); i++) {
        try {
            channels.push_back(
                std::make_unique<LiveChannel>(test.channels[i], std::move(sockets[i]), errors));
        } catch (const InputError &error) {
            refused.emplace_back(error.what());
        }
    }
    if (!refused.empty())
        throw InputError(fmt::format("{}", fmt::join(refused, "\n")));
    return channels;
}

} // namespace vu
