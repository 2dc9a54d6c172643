// The data file being written: its records, one for each stored track, and the account of what went in.
//
// The file is a new one that gets its name when its catalogue has been written: what had that name
// before is complete until then, and whoever reads it keeps it. It is locked while it is recorded. Room on
// the disk and memory for the end of the recording are held back until then.
#pragma once

#include <filesystem>
#include <memory>
#include <string_view>
#include <vector>

#include "libvu/datafile/krd_buffer.h"
#include "vu/record/file/events.h"
#include "vu/record/file/held_room.h"
#include "vu/record/file/ledger.h"
#include "vu/record/file/sync_thread.h"
#include "vu/record/file/track.h"
#include "vu/record/file/waiting.h"
#include "vu/support/account.h"
#include "vu/support/new_file.h"

namespace vu {

class DataFile {
public:
    // Makes a file without a name. Refuses a name that is taken, unless `force`, and one that is being
    // recorded. Throws InputError or std::runtime_error.
    DataFile(std::filesystem::path path, bool force);
    ~DataFile();
    DataFile(const DataFile &) = delete;
    DataFile &operator=(const DataFile &) = delete;

    // Writes the catalogue, gives the file its name and attaches a pipe to each of `tracks` that is to be
    // stored. Groups are numbered in their order.
    void begin(const Description &test, std::vector<Track> tracks);
    // Writes what has queued up.
    void flush(bool force, Events &events);
    // Takes what a source says of its input, in place of what it said before.
    void account(Account account);
    // Gives back the memory that is held for the end, when there is no other left.
    void releaseMemory() { memory_.reset(); }
    // Writes the rest, index and closing block, brings all of it to the disk and closes. `end` says why the
    // recording ended. Works with the memory that was held back; events are left out of the closing block if
    // neither memory nor disk has room for all.
    void finish(const char *end, Events &events);

    // The same bit by bit. Makes all that waits due;
    void beginFlush(Events &events);
    // writes for about so long, first the tracks that hold much, and returns whether anything is left;
    bool flushPortion(double seconds, Events &events);
    // says whether tracks that hold much were left over by it;
    bool isBehind() const { return full_; }
    // counts what waits, and writes at once what is beyond the budget of memory.
    void lookAtWaiting(Events &events);

    uint64_t writtenBytes() const;
    const std::filesystem::path &path() const { return file_.path(); }

    struct Stored {
        Track track;
        Ledger ledger;
        int32_t group = -1; // -1: not stored
        KRDBuffer *record = nullptr;
        uint64_t delivered = 0; // elements that came out of its pipe
        Waiting waiting;
    };
    const std::vector<Stored> &tracks() const { return tracks_; }
    const std::vector<Account> &accounts() const { return accounts_; }

private:
    struct FreeRecords {
        size_t count;
        void operator()(KRDBuffer *records) const;
    };

    void makeRecord(KRDBuffer &record, int32_t group, const char *name, uint32_t capacity);
    void addTrack(Stored &stored);
    void writeBytes(KRDBuffer &record, const std::string &text);
    void writeCatalogue(const Description &test);
    void flushTrack(Stored &stored, bool force);
    void flushNoted(Stored &stored, bool force, Events &events);
    void book(Stored &stored, uint64_t taken, int64_t advanced);
    void lookAfter(Events &events);
    void settleLedgers();
    void noteDisk(Events &events);
    void noteSync(int error, Events &events);
    void holdForEnd(const Events &events);
    void cutToWholeBlocks();
    void writeIndex();
    void writeClosing(const char *end, const Events &events);
    void syncAll(Events &events);

    NewFile file_;
    Descriptor folder_;
    HeldRoom room_;
    std::unique_ptr<char[]> memory_;                    // held back for finish()
    std::unique_ptr<KRDBuffer[], FreeRecords> records_; // catalogue, index, then the stored tracks
    size_t record_count_ = 0;
    std::vector<Stored> tracks_;
    std::vector<Account> accounts_;
    std::vector<uint64_t> index_blocks_; // where they begin
    uint64_t whole_bytes_ = 0;           // length of the file up to its last whole block
    size_t events_held_ = 0;             // for so many events room is held back,
    uint64_t event_bytes_ = 0;           // and they take about so much
    bool full_told_ = false;
    std::unique_ptr<SyncThread> sync_;
    WaitingLimits limits_;
    size_t due_ = 0;       // the first track that is due and not yet written
    bool full_ = false;    // one holds more than its limit
    size_t next_full_ = 0; // where the search for those goes on
};

} // namespace vu
