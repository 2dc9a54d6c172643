#include "vu/record/file/data_file.h"

#include <algorithm>
#include <arpa/inet.h>
#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <fmt/format.h>
#include <stdexcept>
#include <sys/stat.h>
#include <sys/statvfs.h>

#include "libvu/core/report.h"
#include "libvu/datafile/storage_convert.h"
#include "vu/command.h"
#include "vu/description/store_rules.h"

namespace vu {

namespace {

constexpr uint32_t kIndexBytes = 64 << 10; // entries of 5461 blocks
constexpr size_t kClosingRoom = 192 << 10; // index, events and the frame of the closing block
constexpr size_t kRoomPerTrack = 512;
constexpr size_t kLargestShare = 4; // of what is free: a small disk is there for the data
constexpr int kCatalogue = 0;
constexpr int kIndex = 1;

[[noreturn]] void fail(const std::filesystem::path &path, const char *what)
{
    throw std::runtime_error(fmt::format("{}: {}: {}", path.string(), what, std::strerror(errno)));
}

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

// About how much memory that is; where elements differ in size, the newest speaks for all.
uint64_t waitingBytesOf(const Pipe *pipe)
{
    return pipe->newest ? static_cast<uint64_t>(pipe->queued) * pipe->newest->element_size : 0;
}

} // namespace

void DataFile::FreeRecords::operator()(KRDBuffer *records) const
{
    for (size_t i = 0; i < count; i++)
        std::free(records[i].buffer.buf);
    std::free(records);
}

DataFile::DataFile(std::filesystem::path path, bool force) : path_(std::move(path))
{
    // A write that a full disk cut short shortens the file: what follows has to go to its new end.
    const int flags = O_WRONLY | O_CREAT | O_APPEND | O_CLOEXEC | (force ? O_TRUNC : O_EXCL);
    file_ = Descriptor(open(path_.c_str(), flags, 0666));
    if (!file_ && errno == EEXIST)
        throw InputError(fmt::format("{}: exists already; --force overwrites it", path_.string()));
    if (!file_)
        fail(path_, "can not be written");
}

DataFile::~DataFile()
{
    struct stat status {};
    if (file_ && fstat(file_.get(), &status) == 0 && status.st_size == 0 && S_ISREG(status.st_mode)) {
        std::error_code ignored;
        std::filesystem::remove(path_, ignored);
    }
}

// A file without a name, given back just before the end. Without it a recording works as well.
void DataFile::holdRoom(size_t tracks)
{
    const auto folder = path_.has_parent_path() ? path_.parent_path() : std::filesystem::path(".");
    room_ = Descriptor(open(folder.c_str(), O_TMPFILE | O_WRONLY | O_CLOEXEC, 0600));
    struct statvfs disk {};
    if (!room_ || fstatvfs(room_.get(), &disk) != 0)
        return;
    const uint64_t share = uint64_t{disk.f_bavail} * disk.f_frsize / kLargestShare;
    const uint64_t room = std::min<uint64_t>(kClosingRoom + tracks * kRoomPerTrack, share);
    if (fallocate(room_.get(), 0, 0, static_cast<off_t>(room)) != 0)
        room_.close();
}

void DataFile::makeRecord(KRDBuffer &record, int32_t group, const char *name, uint32_t capacity)
{
    record.idx = group;
    record.fd = file_.get();
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
    if (text.size() != length || KRDBuffer_append(&record, text.data(), length) != length)
        throw std::runtime_error(
            fmt::format("{}: no memory for a block of {} bytes", path_.string(), text.size()));
    KRDBuffer_flush(&record, 1);
}

void DataFile::begin(const Description &test, std::vector<Track> tracks)
{
    for (Track &track : tracks)
        tracks_.push_back({std::move(track), {}, -1, nullptr, 0});
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
    holdRoom(tracks_.size());
    writeBytes(records_[kCatalogue], catalogue(test));
    if (KRDWriter_is_disk_full()) {
        KRDWriter_restore_writer();
        throw std::runtime_error(fmt::format("{}: no room for the catalogue", path_.string()));
    }
    whole_bytes_ = writtenBytes();
    records_[kIndex].file_offset = whole_bytes_;
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
    // `start` of the frames tells where a block belongs.
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
            fmt::format("{}: {} can not be stored as {}", track.name, track.element, track.store.element));
}

uint64_t DataFile::writtenBytes() const
{
    return static_cast<uint64_t>(
        KRDWriter_amount_written(static_cast<int32_t>(record_count_), records_.get()));
}

uint64_t DataFile::waitingBytes() const
{
    uint64_t bytes = 0;
    for (const Stored &stored : tracks_)
        if (stored.record)
            bytes += waitingBytesOf(stored.record->pipe);
    return bytes;
}

// Books `taken` elements that left the pipe. `advanced` is how far the record's position moved.
void DataFile::account(Stored &stored, uint64_t taken, int64_t advanced)
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
    const double indexWritten = index.amount_written;
    const uint64_t indexPlace = index.file_offset;
    const int64_t position = record.position;
    KRDWriter_flush_these(stored.group, 1, records_.get(), force);
    account(stored, before - waiting(record.pipe), record.position - position);
    if (KRDWriter_is_disk_full())
        return;
    if (index.amount_written > indexWritten)
        index_blocks_.push_back(indexPlace);
    whole_bytes_ = writtenBytes();
}

void DataFile::noteDisk(Events &events)
{
    if (full_told_ || !KRDWriter_is_disk_full())
        return;
    full_told_ = true;
    events.add("disk_full", "", fmt::format("{}: no more can be written", path_.string()));
}

void DataFile::flush(bool force, Events &events)
{
    for (Stored &stored : tracks_) {
        if (!stored.record)
            continue;
        const uint64_t refused = stored.ledger.conversion;
        flushTrack(stored, force);
        if (refused == 0 && stored.ledger.conversion > 0)
            events.add("error", stored.track.name, libvuLastError() ? libvuLastError() : "conversion failed");
        noteDisk(events);
    }
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

// Lets the end of the file be written: behind the last whole block, into the room that was held back.
void DataFile::makeRoom()
{
    room_.close();
    if (!KRDWriter_is_disk_full())
        return;
    KRDWriter_restore_writer();
    // A block that took several writes may have left its front behind.
    if (ftruncate(file_.get(), static_cast<off_t>(whole_bytes_)) != 0)
        fail(path_, "can not be cut to its last whole block");
    records_[kIndex].file_offset = whole_bytes_;
}

void DataFile::finish(const char *end, Events &events)
{
    flush(true, events);
    settleLedgers();
    makeRoom();
    if (records_[kIndex].buffer.size > 0) {
        index_blocks_.push_back(whole_bytes_);
        KRDBuffer_flush(&records_[kIndex], 1);
    }
    writeBytes(records_[kCatalogue], closing(end, events));
    const bool closed = !KRDWriter_is_disk_full();
    KRDWriter_restore_writer();
    for (Stored &stored : tracks_)
        stored.record = nullptr;
    records_.reset();
    file_.close();
    if (!closed)
        events.add("disk_full", "", fmt::format("{}: no room for the closing block", path_.string()));
}

} // namespace vu
