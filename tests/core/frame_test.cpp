#include "libvu/core/frame.h"

#include <gmock/gmock.h>
#include <sstream>

#include "tests/support/error_trap.h"

namespace {

using testing::ElementsAre;

TEST(Frame, PayloadIsInsideOrExternalAndAuxMayBeItsOwn)
{
    double external[2] = {};
    Frame *inside = frameCreate(2, 8, nullptr);
    Frame *outside = frameCreate(2, 8, external);
    EXPECT_EQ(static_cast<uint8_t *>(inside->data), reinterpret_cast<uint8_t *>(inside) + sizeof(Frame));
    EXPECT_EQ(outside->data, external);
    EXPECT_EQ(outside->aux, outside->aux_inline);
    inside->length = 1;
    EXPECT_EQ(frameTail(inside), static_cast<double *>(inside->data) + 1);
    EXPECT_EQ(frameAvailable(inside), 1U);
    Frame *own = frameCreateMessage(external, 4);
    Frame *untouched = frameCreateMessage(external, 4);
    EXPECT_EQ(untouched->is_message, 1);
    EXPECT_EQ(untouched->element_size, 1U);
    uint32_t elsewhere[2] = {};
    outside->aux = elsewhere; // only a message frees what is not its own
    own->aux = static_cast<uint32_t *>(calloc(2, sizeof(uint32_t)));
    for (Frame *frame : {inside, outside, own, untouched, static_cast<Frame *>(nullptr)})
        frameDelete(frame); // a leak or a wrong free is for the sanitizer
}

TEST(Frame, DeletionsTooManyAreReportedAndHarmNothing)
{
    vu::test::ErrorTrap errors;
    Frame *pool = nullptr, *const root = frameCreate(1, 1, nullptr), *const clone = frameClone(root);
    root->pool = &pool;
    clone->refcount = 0; // as it is after the deletion that released it
    frameDelete(clone);
    EXPECT_EQ(root->refcount, 2);
    clone->refcount = 1;
    for (Frame *frame : {clone, root, root})
        frameDelete(frame);
    EXPECT_EQ(pool, root);
    EXPECT_EQ(root->next, nullptr); // still a list
    EXPECT_EQ(root->refcount, -1);
    EXPECT_THAT(errors.texts(),
                ElementsAre("Cloned frame deleted too many times", "Root frame deleted too many times"));
    free(root);
}

// Rows of a sample rate, a pipe rate and the elements of a frame.
TEST(Frame, BufsizeStaysAUsableCount)
{
    std::istringstream words(
        "1000 10 100  999 10 99  5 10 1  0 0 1  1 0 1  -10 1 1  nan 1 1  1 nan 1  inf 1 1 "
        "1e300 1e-300 1  1e10 1 2147483647  2147483646.5 1 2147483646");
    for (std::string samples, pipes, elements; words >> samples >> pipes >> elements;)
        EXPECT_EQ(frameBufsize(std::stod(samples), std::stod(pipes)), std::stol(elements)) << samples;
}

} // namespace
