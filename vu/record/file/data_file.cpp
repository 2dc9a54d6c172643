#include "vu/record/file/data_file.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fmt/format.h>
#include <stdexcept>

#include "libvu/core/report.h"
#include "libvu/datafile/storage_convert.h"
#include "vu/record/file/file_head.h"

namespace vu {

namespace {

constexpr uint32_t kIndexBytes = 64 << 10; // entries of 5461 blocks
// What the end of a recording takes on the disk: the index, and the closing block with its frame, a line of
// the ledger and of an account for each track, and the events.
constexpr uint64_t kRoom = kIndexBytes + (8 << 10);
constexpr uint64_t kRoomPerTrack = 640;
constexpr uint64_t kRoomPerEvent = 128; // beside its texts
// And in memory while the JSON is made of it.
constexpr size_t kMemory = 8 << 20;
constexpr size_t kMemoryPerTrack = 8 << 10;
constexpr size_t kMemoryPerEvent = 2560; // without its texts, which are there so many times:
constexpr uint64_t kTextCopies = 8;
constexpr int kCatalogue = 0;
constexpr int kIndex = 1;

bool isPeriodicAsItComes(const Track &track)
{
    return track.periodic() && track.store.element.empty();
}

// How many elements wait; the pipe's own count is off after frames were shortened at a limit.
uint64_t waiting(const Pipe *pipe)
{
    uint64_t count = 0;
    for (const Frame *frame = pipe->oldest; frame; frame = frame->prev)
        count += frame->length;
    return count;
}

// A JSON text that runs out of memory half-way cannot even be released: it is tried beforehand.
bool isThereMemory(size_t bytes)
{
    return std::unique_ptr<char[]>(new (std::nothrow) char[bytes]) != nullptr;
}

} // namespace

void DataFile::FreeRecords::operator()(KRDBuffer *records) const
{
    for (size_t i = 0; i < count; i++)
        std::free(records[i].buffer.buf);
    std::free(records);
}

// A write that a full disk cut short shortens the file: what follows has to go to its new end, hence
// O_APPEND.
DataFile::DataFile(std::filesystem::path path, bool force)
    : file_(std::move(path), force, O_APPEND),
      folder_(open(folderOf(file_.path()).c_str(), O_RDONLY | O_DIRECTORY | O_CLOEXEC))
{
    file_.lock();
}

DataFile::~DataFile() = default;

// Events may be many, and are there before the disk is full.
void DataFile::holdForEnd(const Events &events)
{
    for (; events_held_ < events.list().size(); events_held_++) {
        const Event &event = events.list()[events_held_];
        event_bytes_ += kRoomPerEvent + event.kind.size() + event.channel.size() + event.text.size();
    }
    room_.hold(folderOf(path()), kRoom + tracks_.size() * kRoomPerTrack + event_bytes_);
}

void DataFile::makeRecord(KRDBuffer &record, int32_t group, const char *name, uint32_t capacity)
{
    record.idx = group;
    record.fd = file_.fd();
    record.group = group;
    record.name = name;
    record.min_samples = 1;
    record.sample_limit = -1;
    record.scale = 1.0;
    record.group_word = htonl(static_cast<uint32_t>(group));
    std::memcpy(&record.tag_word, KRD_TAG, sizeof record.tag_word);
    record.iov[0] = {&record.block_size_word, KRD_HEADER_SIZE};
    if (capacity > 0)
        membufInitialize(&record.buffer, capacity, nullptr, 0);
}

void DataFile::writeBytes(KRDBuffer &record, const std::string &text)
{
    const auto length = static_cast<uint32_t>(text.size());
    membufExpand(&record.buffer, length);
    if (text.size() != length || KRDBuffer_append(&record, text.data(), length) != length) {
        record.buffer.size = 0;
        throw std::bad_alloc();
    }
    KRDBuffer_flush(&record, 1);
}

void DataFile::writeCatalogue(const Description &test)
{
    writeBytes(records_[kCatalogue], krd::toText(krd::toJson(catalogueOf(test, tracks_))));
    if (KRDWriter_is_disk_full()) {
        KRDWriter_restore_writer();
        throw std::runtime_error(fmt::format("{}: no room for the catalogue", path().string()));
    }
    whole_bytes_ = writtenBytes();
    records_[kIndex].file_offset = whole_bytes_;
}

void DataFile::begin(const Description &test, std::vector<Track> tracks)
{
    for (Track &track : tracks)
        tracks_.push_back({std::move(track), {}, -1, nullptr, 0, {}});
    due_ = tracks_.size();
    int32_t group = KRD_GROUP_FIRST_CHANNEL;
    for (Stored &stored : tracks_)
        if (stored.track.store.wanted)
            stored.group = group++;
    record_count_ = static_cast<size_t>(group);
    // Left to the system as zeros: a record is large, and most of it is never touched.
    auto *records = static_cast<KRDBuffer *>(std::calloc(record_count_, sizeof(KRDBuffer)));
    if (!records)
        throw std::bad_alloc();
    records_ = std::unique_ptr<KRDBuffer[], FreeRecords>(records, FreeRecords{record_count_});
    makeRecord(records_[kCatalogue], KRD_GROUP_CATALOGUE, "catalogue", 4096);
    makeRecord(records_[kIndex], KRD_GROUP_INDEX, "index", kIndexBytes);
    for (Stored &stored : tracks_)
        if (stored.group >= 0)
            addTrack(stored);
    holdForEnd({});
    memory_.reset(
        new char[kMemory + tracks_.size() * kMemoryPerTrack]); // never touched: only its room counts
    writeCatalogue(test);
    file_.name();
    if (test.sync_interval > 0.0)
        sync_ = std::make_unique<SyncThread>(file_.fd(), folder_.get(), test.sync_interval);
}

void DataFile::addTrack(Stored &stored)
{
    Track &track = stored.track;
    KRDBuffer &record = records_[static_cast<size_t>(stored.group)];
    makeRecord(record, stored.group, track.name.c_str(), 0);
    stored.record = &record;
    record.index = &records_[kIndex];
    record.pipe = pipeAttachPipe(track.pipes);
    if (!record.pipe)
        throw std::bad_alloc();
    // Messages carry times, and a block of runs advances the running position by its pairs: there only the
    // `start` of the frames says where a block belongs.
    record.block_type = isPeriodicAsItComes(track) ? KRD_BLOCK_RUNNING : KRD_BLOCK_START;
    record.sample_limit = track.store.limit;
    if (track.store.element.empty())
        return;
    record.scale = track.store.scale;
    record.offset = track.store.offset;
    record.uniform_frames = 1;
    const char *family = track.periodic() ? "sequential_" : "message_";
    KRDBuffer_set_storage_convert(&record, (family + track.element).c_str(),
                                  (family + track.store.element).c_str(), track.periodic(),
                                  track.store.run_length ? "rle" : "plain");
    if (!record.pipe_filter)
        throw std::runtime_error(
            fmt::format("{}: {} cannot be stored as {}", track.name, track.element, track.store.element));
}

uint64_t DataFile::writtenBytes() const
{
    return static_cast<uint64_t>(
        KRDWriter_amount_written(static_cast<int32_t>(record_count_), records_.get()));
}

// Books `taken` elements that left the pipe. `advanced` is how far the record's position moved.
void DataFile::book(Stored &stored, uint64_t taken, int64_t advanced)
{
    Ledger &ledger = stored.ledger;
    stored.delivered += taken;
    if (KRDWriter_is_disk_full()) {
        ledger.disk_full += taken;
    } else if (stored.record->sample_limit >= 0 && static_cast<uint64_t>(advanced) < taken) {
        ledger.stored += static_cast<uint64_t>(advanced);
        ledger.limit += taken - static_cast<uint64_t>(advanced);
    } else if (advanced > 0) {
        ledger.stored += taken;
    } else {
        ledger.conversion += taken;
    }
}

void DataFile::flushTrack(Stored &stored, bool force)
{
    KRDBuffer &record = *stored.record;
    KRDBuffer &index = records_[kIndex];
    const uint64_t before = waiting(record.pipe);
    if (before == 0)
        return;
    const double indexWritten = index.amount_written, written = record.amount_written + indexWritten;
    const uint64_t indexPlace = index.file_offset;
    const int64_t position = record.position;
    KRDWriter_flush_these(stored.group, 1, records_.get(), force);
    book(stored, before - waiting(record.pipe), record.position - position);
    if (KRDWriter_is_disk_full())
        return;
    if (index.amount_written > indexWritten)
        index_blocks_.push_back(indexPlace);
    whole_bytes_ += static_cast<uint64_t>(record.amount_written + index.amount_written - written);
}

void DataFile::noteDisk(Events &events)
{
    if (full_told_ || !KRDWriter_is_disk_full())
        return;
    full_told_ = true;
    events.add("disk_full", "", fmt::format("{}: no more can be written", path().string()));
}

// The first refusal of a track, and a full disk, become events.
void DataFile::flushNoted(Stored &stored, bool force, Events &events)
{
    const uint64_t refused = stored.ledger.conversion;
    flushTrack(stored, force);
    stored.waiting.emptied();
    if (refused == 0 && stored.ledger.conversion > 0)
        events.add("error", stored.track.name, libvuLastError() ? libvuLastError() : "conversion failed");
    noteDisk(events);
}

void DataFile::flush(bool force, Events &events)
{
    for (Stored &stored : tracks_)
        if (stored.record)
            flushNoted(stored, force, events);
    lookAfter(events);
}

// What has to be seen to between writes: the sync thread's word, and room for the end.
void DataFile::lookAfter(Events &events)
{
    noteSync(sync_ ? sync_->takeError() : 0, events);
    holdForEnd(events);
}

void DataFile::noteSync(int error, Events &events)
{
    if (error != 0)
        events.add("error", "",
                   fmt::format("{}: what was written may not be on the disk: {}", path().string(),
                               std::strerror(error)));
}

void DataFile::account(Account account)
{
    const auto known = std::ranges::find(accounts_, account.channel, &Account::channel);
    if (known == accounts_.end())
        accounts_.push_back(std::move(account));
    else
        *known = std::move(account);
}

// What the library has counted is what was received; what it counted and never delivered found no frame.
void DataFile::settleLedgers()
{
    for (Stored &stored : tracks_) {
        const Track &track = stored.track;
        Ledger &ledger = stored.ledger;
        const uint64_t counted = track.stream    ? static_cast<uint64_t>(track.stream->sample_count)
                                 : track.node    ? static_cast<uint64_t>(track.node->sample_count)
                                 : track.counted ? *track.counted
                                                 : stored.delivered;
        ledger.received = std::max(counted, stored.delivered);
        ledger.never = neverHadValue(track, stored.delivered);
        if (stored.record)
            ledger.unfinished = ledger.received - stored.delivered;
        else
            ledger.nobody_listening = ledger.received;
    }
}

// After a failed write the file may end with the front of a block, and the library's writer only pretends.
void DataFile::cutToWholeBlocks()
{
    if (!KRDWriter_is_disk_full())
        return;
    KRDWriter_restore_writer();
    if (ftruncate(file_.fd(), static_cast<off_t>(whole_bytes_)) != 0)
        throw std::runtime_error(fmt::format("{}: cannot be cut to its last whole block: {}", path().string(),
                                             std::strerror(errno)));
    records_[kIndex].file_offset = whole_bytes_;
}

// What is left of it in memory. Where not even that has room, the closing block still may.
void DataFile::writeIndex()
{
    if (records_[kIndex].buffer.size == 0)
        return;
    const int64_t length = KRDBuffer_flush(&records_[kIndex], 1);
    if (KRDWriter_is_disk_full()) {
        cutToWholeBlocks();
        return;
    }
    index_blocks_.push_back(whole_bytes_);
    whole_bytes_ += static_cast<uint64_t>(length);
}

// Tries with half the events, and half of these, until memory and disk have room for what is left.
void DataFile::writeClosing(const char *end, const Events &events)
{
    krd::Closing closing = closingOf(*this, end, events.seconds());
    closing.indexBlocks = index_blocks_;
    const size_t all = events.list().size();
    for (size_t kept = all;; kept /= 2) {
        const uint64_t texts = all > 0 ? event_bytes_ / all * kept : 0;
        const bool last = kept == 0;
        if (!last &&
            !isThereMemory(kept * kMemoryPerEvent + kTextCopies * texts + tracks_.size() * kMemoryPerTrack))
            continue;
        closing.events = last ? Json::array() : eventsJson(events, kept);
        closing.eventsLeftOut = all - kept;
        writeBytes(records_[kCatalogue], krd::toText(krd::toJson(closing)));
        if (last || !KRDWriter_is_disk_full())
            return;
        cutToWholeBlocks();
    }
}

void DataFile::syncAll(Events &events)
{
    noteSync(sync_ ? sync_->takeError() : 0, events);
    sync_.reset();
    const int file = syncError(file_.fd());
    noteSync(file != 0 ? file : syncError(folder_.get()), events);
}

void DataFile::finish(const char *end, Events &events)
{
    memory_.reset();
    flush(true, events);
    settleLedgers();
    room_.release();
    cutToWholeBlocks();
    writeIndex();
    writeClosing(end, events);
    if (KRDWriter_is_disk_full()) {
        events.add("disk_full", "", fmt::format("{}: no room for the closing block", path().string()));
        cutToWholeBlocks();
    }
    syncAll(events);
    for (Stored &stored : tracks_)
        stored.record = nullptr;
    records_.reset();
    file_.close();
}

} // namespace vu
