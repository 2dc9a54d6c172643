#include "libvu/core/frame.h"

#include <cmath>
#include <gmock/gmock.h>
#include <limits>

#include "tests/support/allocation_faults.h"
#include "tests/support/error_trap.h"

namespace {

using testing::ElementsAre;
using vu::test::AllocationFaults;
using vu::test::ErrorTrap;

// One frame held by a root and two clones; a pool tells when the payload is free again.
class FrameSharing : public testing::Test {
protected:
    FrameSharing()
    {
        root->pool = &pool;
        root->length = 3;
    }
    ~FrameSharing() override { free(root); }

    ErrorTrap errors;
    Frame *pool = nullptr;
    Frame *const root = frameCreate(10, 4, nullptr);
    Frame *const first = frameClone(root);
    Frame *const second = frameClone(first);
};

TEST_F(FrameSharing, PayloadOutlivesEveryOrderOfDeletion)
{
    Frame *holders[] = {root, first, second};
    for (const auto &order : {std::array{2, 0, 1}, {0, 1, 2}, {1, 2, 0}}) {
        // Every round but the first takes the frame out of the pool again.
        if (pool) {
            pool = nullptr;
            root->refcount = 1;
            holders[1] = frameClone(root);
            holders[2] = frameClone(holders[1]);
        }
        for (const int holder : order) {
            EXPECT_EQ(pool, nullptr);
            frameDelete(holders[holder]);
        }
        EXPECT_EQ(pool, root);
    }
    frameDelete(root); // one too many: reported, and the pool stays a list
    EXPECT_THAT(errors.texts(), ElementsAre("Root frame deleted too many times"));
    EXPECT_EQ(root->next, nullptr);
    EXPECT_EQ(root->refcount, -1);
}

TEST_F(FrameSharing, CloneOfACloneIsACloneOfTheRoot)
{
    first->length = 1;
    Frame *third = frameClone(first);
    EXPECT_EQ(third->parent, root);
    EXPECT_EQ(third->length, 3U);
    EXPECT_EQ(third->data, root->data);
    EXPECT_EQ(third->aux, root->aux_inline);
    EXPECT_EQ(first->refcount, 1);
    first->refcount = 0; // as it stands after the deletion that released it
    frameDelete(first);
    EXPECT_THAT(errors.texts(), ElementsAre("Cloned frame deleted too many times"));
    EXPECT_EQ(root->refcount, 4);
    first->refcount = 1;
    for (Frame *frame : {third, first, second, root})
        frameDelete(frame);
}

TEST(Frame, PayloadIsInsideOrExternalAndAuxMayBeItsOwn)
{
    ErrorTrap errors;
    double external[2] = {};
    Frame *inside = frameCreate(2, 8, nullptr);
    Frame *outside = frameCreate(2, 8, external);
    EXPECT_EQ(static_cast<uint8_t *>(inside->data), reinterpret_cast<uint8_t *>(inside) + sizeof(Frame));
    EXPECT_EQ(outside->data, external);
    EXPECT_EQ(outside->aux, outside->aux_inline);
    inside->length = 1;
    EXPECT_EQ(frameTail(inside), static_cast<double *>(inside->data) + 1);
    EXPECT_EQ(frameAvailable(inside), 1U);
    EXPECT_EQ(frameLength(inside), 1U);
    Frame *own = frameCreateMessage(external, 4);
    Frame *none = frameCreateMessage(external, 4);
    Frame *untouched = frameCreateMessage(external, 4);
    EXPECT_EQ(untouched->is_message, 1);
    EXPECT_EQ(untouched->element_size, 1U);
    own->aux = static_cast<uint32_t *>(calloc(2, sizeof(uint32_t)));
    none->aux = nullptr;
    for (Frame *frame : {inside, outside, own, none, untouched, static_cast<Frame *>(nullptr)})
        frameDelete(frame); // the sanitizer tells a leak or a wrong free
}

TEST(Frame, FailuresAreReported)
{
    ErrorTrap errors;
    AllocationFaults memory;
    memory.failAt(0);
    EXPECT_EQ(frameCreate(1, 1, nullptr), nullptr);
    EXPECT_EQ(frameCreate(UINT32_MAX, UINT32_MAX, nullptr), nullptr);
    EXPECT_EQ(frameClone(nullptr), nullptr);
    Frame *root = frameCreate(1, 1, nullptr);
    memory.failAt(0);
    EXPECT_EQ(frameClone(root), nullptr);
    EXPECT_EQ(root->refcount, 1);
    EXPECT_THAT(errors.texts(),
                ElementsAre("Can not allocate memory for frame", "Can not allocate memory for frame",
                            "Unable to clone frame:  argument required",
                            "Can not allocate memory for clone"));
    frameDelete(root);
}

TEST(Frame, BufsizeStaysAUsableCount)
{
    constexpr int32_t kMost = std::numeric_limits<int32_t>::max();
    const std::tuple<double, double, int32_t> cases[] = {{1000, 10, 100},
                                                         {999, 10, 99},
                                                         {5, 10, 1},
                                                         {0, 0, 1},
                                                         {1, 0, 1},
                                                         {-10, 1, 1},
                                                         {1, -1, 1},
                                                         {NAN, 1, 1},
                                                         {1, NAN, 1},
                                                         {HUGE_VAL, 1, 1},
                                                         {1e300, 1e-300, 1},
                                                         {1e10, 1, kMost},
                                                         {2147483647.0, 1, kMost},
                                                         {2147483646.5, 1, kMost - 1}};
    for (const auto &[sampleRate, pipeRate, elements] : cases)
        EXPECT_EQ(frameBufsize(sampleRate, pipeRate), elements) << sampleRate << " / " << pipeRate;
}

} // namespace
