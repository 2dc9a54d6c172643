// The data file being written: its records, one for each stored track, and the account of what went in.
//
// The file goes straight to its final name. Room for the closing part is held back in a file beside it while
// the recording lasts, so that a full disk does not take the ledger with it.
#pragma once

#include <filesystem>
#include <memory>
#include <vector>

#include "libvu/datafile/krd_buffer.h"
#include "vu/record/file/events.h"
#include "vu/record/file/ledger.h"
#include "vu/record/file/track.h"
#include "vu/support/descriptor.h"

namespace vu {

class DataFile {
public:
    // Creates the file; refuses one that exists unless `force`. Throws InputError or std::runtime_error.
    DataFile(std::filesystem::path path, bool force);
    ~DataFile(); // an empty file is removed
    DataFile(const DataFile &) = delete;
    DataFile &operator=(const DataFile &) = delete;

    // Writes the catalogue and attaches a pipe to each of `tracks` that is to be stored. Groups are numbered
    // in their order.
    void begin(const Description &test, std::vector<Track> tracks);
    // Writes what has queued up.
    void flush(bool force, Events &events);
    // Writes the rest, index and closing block, and closes. `end` says why the recording ended.
    void finish(const char *end, Events &events);

    // Bytes that wait in memory for the next flush.
    uint64_t waitingBytes() const;
    uint64_t writtenBytes() const;
    const std::filesystem::path &path() const { return path_; }

    struct Stored {
        Track track;
        Ledger ledger;
        int32_t group = -1; // -1: not stored
        KRDBuffer *record = nullptr;
        uint64_t delivered = 0; // elements that came out of its pipe
    };
    const std::vector<Stored> &tracks() const { return tracks_; }

private:
    struct FreeRecords {
        size_t count;
        void operator()(KRDBuffer *records) const;
    };

    void holdRoom(size_t tracks);
    void makeRecord(KRDBuffer &record, int32_t group, const char *name, uint32_t capacity);
    void addTrack(Stored &stored);
    void writeBytes(KRDBuffer &record, const std::string &text);
    void flushTrack(Stored &stored, bool force);
    void account(Stored &stored, uint64_t taken, int64_t advanced);
    void settleLedgers();
    void noteDisk(Events &events);
    void makeRoom();
    std::string catalogue(const Description &test) const;
    std::string closing(const char *end, const Events &events) const;

    std::filesystem::path path_;
    Descriptor file_;
    Descriptor room_;
    std::unique_ptr<KRDBuffer[], FreeRecords> records_; // catalogue, index, then the stored tracks
    size_t record_count_ = 0;
    std::vector<Stored> tracks_;
    std::vector<uint64_t> index_blocks_; // where they begin
    uint64_t whole_bytes_ = 0;           // length of the file up to its last whole block
    bool full_told_ = false;
};

} // namespace vu
