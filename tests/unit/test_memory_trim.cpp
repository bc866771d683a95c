#include "memory_trim.h"

#include <cstdlib>
#include <glib.h>
#include <gtest/gtest.h>

/* Other C libraries return no memory. */
#ifdef __GLIBC__

namespace
{

struct {
    int timers;
    guint delay;
    GSourceFunc callback;
    int trims;
} made;

class MemoryTrim : public ::testing::Test
{
  protected:
    MemoryTrim()
    {
        made = {};
    }

    /* So that the next test starts without a timer. */
    ~MemoryTrim() override
    {
        if (made.callback) {
            made.callback(nullptr);
        }
    }
};

} // namespace

extern "C" {

guint __wrap_g_timeout_add_seconds(guint delay, GSourceFunc callback, gpointer)
{
    made.timers++;
    made.delay = delay;
    made.callback = callback;
    return 1;
}

int __wrap_malloc_trim(size_t)
{
    made.trims++;
    return 1;
}
}

TEST_F(MemoryTrim, HappensWithinAMinute)
{
    memory_trim_later();
    ASSERT_EQ(made.timers, 1);
    EXPECT_LT(made.delay, 60U);
    EXPECT_EQ(made.trims, 0);
    EXPECT_EQ(made.callback(nullptr), G_SOURCE_REMOVE);
    EXPECT_EQ(made.trims, 1);
}

TEST_F(MemoryTrim, HappensOnceForSeveralCalls)
{
    memory_trim_later();
    memory_trim_later();
    EXPECT_EQ(made.timers, 1);
}

TEST_F(MemoryTrim, HappensAgainAfterALaterCall)
{
    memory_trim_later();
    made.callback(nullptr);
    memory_trim_later();
    EXPECT_EQ(made.timers, 2);
}

#endif
