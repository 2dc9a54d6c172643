#include "libvu/core/pipe.h"

#include <gmock/gmock.h>

#include "libvu/core/callbacks.h"
#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"

namespace {

using testing::ElementsAre;
using vu::test::AllocationFaults;
using vu::test::ErrorTrap;

Frame *frameOf(uint32_t length)
{
    Frame *frame = frameCreate(100, 1, nullptr);
    frame->length = length;
    return frame;
}

class APipe : public testing::Test {
protected:
    ~APipe() override
    {
        while (list.first)
            pipeDetachPipe(&list, list.first);
    }
    std::vector<const Frame *> newestToOldest() const
    {
        std::vector<const Frame *> seen;
        const Frame *last = nullptr;
        for (const Frame *frame = pipe->newest; frame; last = frame, frame = frame->next) {
            EXPECT_EQ(frame->prev, last);
            seen.push_back(frame);
        }
        EXPECT_EQ(pipe->oldest, last);
        return seen;
    }

    ErrorTrap errors;
    PipeList list{};
    Pipe *pipe = pipeAttachPipe(&list);
};

TEST_F(APipe, GivesFramesBackInTheirOrderAndCountsWhatTheirLengthIsThen)
{
    Frame *const frames[] = {frameOf(1), frameOf(2), frameOf(10)};
    for (Frame *frame : frames)
        pipeAddFrame(pipe, frame);
    EXPECT_EQ(pipe->queued, 13);
    frames[2]->length = 4;
    for (Frame *frame : frames) {
        EXPECT_EQ(pipeHasFrames(pipe), 1);
        EXPECT_EQ(pipeGetFrame(pipe), frame);
        frameDelete(frame);
    }
    EXPECT_EQ(pipeGetFrame(pipe), nullptr);
    EXPECT_EQ(pipeHasFrames(pipe), 0);
    EXPECT_EQ(pipe->queued, 6);
    Frame *lengthened = frameOf(1);
    pipeAddFrame(pipe, lengthened);
    lengthened->length = 50;
    pipeRemoveFrame(pipe, lengthened);
    EXPECT_EQ(pipe->queued, 0);
}

TEST_F(APipe, LosesAFrameWhereverItStands)
{
    for (int victim = 0; victim < 3; victim++) {
        std::vector<Frame *> frames = {frameOf(1), frameOf(2), frameOf(4)};
        for (Frame *frame : frames)
            pipeAddFrame(pipe, frame);
        Frame *stranger = frameOf(8);
        pipeRemoveFrame(pipe, stranger);
        pipeRemoveFrame(pipe, frames[static_cast<size_t>(victim)]);
        EXPECT_EQ(pipe->queued, 7 - (1 << victim));
        frames.erase(frames.begin() + victim);
        EXPECT_THAT(newestToOldest(), ElementsAre(frames[1], frames[0]));
        pipeFlushFrames(pipe);
        EXPECT_THAT(newestToOldest(), ElementsAre());
        frameDelete(stranger);
    }
}

TEST_F(APipe, ChainStaysWholeWhicheverLinkGoes)
{
    for (const int order : {0, 1, 2}) {
        PipeList chain{};
        Pipe *const pipes[] = {pipeAttachPipe(&chain), pipeAttachPipe(&chain), pipeAttachPipe(&chain)};
        pipeAddFrame(pipes[order], frameOf(1)); // flushed with its pipe
        pipeDetachPipe(&chain, pipes[order]);
        const Pipe *const left[] = {pipes[order == 0 ? 1 : 0], pipes[order == 2 ? 1 : 2]};
        EXPECT_EQ(chain.first, left[0]);
        EXPECT_EQ(left[0]->next, left[1]);
        EXPECT_EQ(left[1]->prev, left[0]);
        while (chain.first)
            pipeDetachPipe(&chain, chain.first);
    }
}

TEST_F(APipe, ReportsWhatIsMissing)
{
    AllocationFaults memory;
    memory.failAt(0);
    EXPECT_EQ(pipeAttachPipe(&list), nullptr);
    EXPECT_THAT(errors.texts(), ElementsAre("Can not allocate memory for pipe", "Unable to create new pipe"));
    memory.failAt(0);
    EXPECT_EQ(pipeNewPipeList(), nullptr);
    Frame *frame = frameOf(1);
    pipeAttachPipe(nullptr);
    pipeAddFrame(nullptr, nullptr);
    pipeAddFrame(pipe, nullptr);
    EXPECT_EQ(pipeGetFrame(nullptr), nullptr);
    pipeFlushFrames(nullptr);
    EXPECT_EQ(pipeHasFrames(nullptr), 0);
    pipeDetachPipe(nullptr, nullptr);
    pipeDetachPipe(&list, nullptr);
    pipeRemoveFrame(nullptr, frame);
    pipeRemoveFrame(pipe, nullptr);
    const std::string noList = "Pipe list not given", noPipe = "Pipe not given",
                      neither = "Paramters 'pipe' and 'frame' must not be NULL";
    EXPECT_THAT(errors.texts(), ElementsAre(noList, noList, "Frame not given", noPipe, noPipe, noPipe, noList,
                                            noPipe, neither, neither));
    frameDelete(frame);
}

} // namespace
