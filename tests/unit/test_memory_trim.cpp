#include "memory_trim.h"

#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <glib.h>
#include <gtest/gtest.h>
#include <malloc.h>
#include <string>
#include <thread>

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

/* Returns how many pools threads have allocated from. */
size_t count_pools()
{
    char *text = nullptr;
    size_t length = 0;
    FILE *file = open_memstream(&text, &length);
    malloc_info(0, file);
    fclose(file);
    size_t count = 0;
    for (const char *at = text; (at = strstr(at, "<heap nr=")); at++) {
        count++;
    }
    free(text);
    return count;
}

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

TEST(MemoryTrimPool, IsSharedByAllThreads)
{
    memory_trim_share_pool();
    std::thread([] {
        std::string text(4000, 'x');
        EXPECT_EQ(text.back(), 'x');
    }).join();
    EXPECT_EQ(count_pools(), 1U);
}

#endif
