#include "libvu/core/pipe.h"
#include "libvu/monitor/element_access.h"

#include <gmock/gmock.h>
#include <random>

#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"

namespace {

using testing::ElementsAre;

class Pipes : public testing::Test {
protected:
    ~Pipes() override
    {
        while (list.first)
            pipeDetachPipe(&list, list.first);
    }
    vu::test::ErrorTrap errors;
    PipeList list{};
};

// A pipe, and what should be in it.
struct Filled {
    Pipe *pipe;
    std::vector<Frame *> frames = {}; // newest first
    int64_t queued = 0;

    void lose(const Frame *frame)
    {
        queued = std::max<int64_t>(0, queued - frame->length);
        std::erase(frames, frame);
    }
    void expect() const
    {
        const Frame *newer = nullptr, *frame = pipe->newest;
        for (const Frame *expected : frames) {
            ASSERT_EQ(frame, expected);
            EXPECT_EQ(frame->prev, newer);
            static_cast<char *>(frame->data)[0]++; // nobody has freed it
            newer = std::exchange(frame, frame->next);
        }
        EXPECT_EQ(frame, nullptr);
        EXPECT_EQ(pipe->oldest, newer);
        EXPECT_EQ(pipe->queued, queued);
        EXPECT_EQ(pipeHasFrames(pipe), !frames.empty());
    }
};

// Everything that a host can do with frames, clones and pipes, in random order. What is freed too early,
// twice or never is the sanitizer's to tell.
TEST_F(Pipes, HoldWhatIsPutInAndNothingElse)
{
    std::mt19937 random(1);
    std::vector<Filled> pipes;
    std::vector<Frame *> hands; // what the host holds itself
    for (int step = 0; step < 30000; step++) {
        while (pipes.size() < 3)
            pipes.push_back({pipeAttachPipe(&list)});
        Filled &some = pipes[random() % 3];
        const uint32_t action = random() % 9;
        const auto &from = action < 4 ? some.frames : hands;
        Frame *const frame = from.empty() ? frameCreate(100, 1, nullptr) : from[random() % from.size()];
        if (from.empty()) {
            hands.push_back(frame);
        } else if (action == 0) {
            hands.push_back(pipeGetFrame(some.pipe));
            EXPECT_EQ(hands.back(), some.frames.back());
            some.lose(hands.back());
        } else if (action == 1) {
            some.lose(frame);
            pipeRemoveFrame(some.pipe, frame);
        } else if (action == 2) {
            pipeDetachPipe(&list, some.pipe);
            pipes.erase(pipes.begin() + (&some - pipes.data()));
        } else if (action < 5) {
            frame->length = random() % 50; // of one that waits in a pipe, too
        } else if (action == 5) {
            const Frame *clone = hands.emplace_back(frameClone(frame));
            const Frame *root = frame->parent ? frame->parent : frame;
            EXPECT_EQ(clone->parent, root);
            EXPECT_EQ(clone->length, root->length);
            EXPECT_EQ(clone->aux, root->aux_inline);
        } else if (action == 6) {
            pipeRemoveFrame(some.pipe, frame); // a stranger is none of its business
            std::erase(hands, frame);
            frameDelete(frame);
        } else {
            pipeAddFrame(some.pipe, frame);
            some.frames.insert(some.frames.begin(), frame);
            some.queued += frame->length;
            std::erase(hands, frame);
        }
        const Pipe *link = list.first, *before = nullptr;
        for (const Filled &filled : pipes) {
            filled.expect();
            EXPECT_EQ(link, filled.pipe);
            EXPECT_EQ(link->prev, before);
            before = std::exchange(link, link->next);
        }
        ASSERT_FALSE(HasFailure()) << step;
    }
    for (Frame *frame : hands)
        frameDelete(frame);
}

// A consumer of a chain holds a clone, and may hand it on to a chain of its own.
TEST_F(Pipes, ACloneIsDeliveredLikeItsRoot)
{
    Frame *const root = frameCreate(4, 4, nullptr);
    Pipe *const pipes[] = {pipeAttachPipe(&list), pipeAttachPipe(&list), pipeAttachPipe(&list)};
    EXPECT_NE(Put_Frame(frameClone(root), &list), 0);
    EXPECT_EQ(root->refcount, 4);
    for (Pipe *const pipe : pipes)
        frameDelete(pipeGetFrame(pipe));
    EXPECT_EQ(root->refcount, 1);
    frameDelete(root);
}

TEST_F(Pipes, ReportWhatIsMissing)
{
    vu::test::AllocationFaults memory;
    Pipe *const pipe = pipeAttachPipe(&list);
    Frame *const frame = frameCreate(1, 1, nullptr);
    EXPECT_EQ(frameCreate(UINT32_MAX, UINT32_MAX, nullptr), nullptr);
    EXPECT_EQ(frameClone(nullptr), nullptr);
    memory.failAt(0);
    EXPECT_EQ(frameClone(frame), nullptr);
    EXPECT_EQ(frame->refcount, 1);
    memory.failAt(0);
    EXPECT_EQ(pipeAttachPipe(&list), nullptr);
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
    const std::string memoryFor = "Can not allocate memory for ", noList = "Pipe list not given",
                      noPipe = "Pipe not given", neither = "Paramters 'pipe' and 'frame' must not be NULL";
    EXPECT_THAT(errors.texts(), ElementsAre(memoryFor + "frame", "Unable to clone frame:  argument required",
                                            memoryFor + "clone", memoryFor + "pipe",
                                            "Unable to create new pipe", noList, noList, "Frame not given",
                                            noPipe, noPipe, noPipe, noList, noPipe, neither, neither));
    frameDelete(frame);
}

} // namespace
