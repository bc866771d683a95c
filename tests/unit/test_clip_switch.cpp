#include "clip_switch.h"

#include <algorithm>
#include <atomic>
#include <gtest/gtest.h>
#include <thread>

namespace
{

class ClipSwitchTest : public ::testing::Test
{
  protected:
    ClipSwitchTest()
    {
        clip_switch_init(&clip_switch);
        clip_switch_open(&clip_switch);
    }

    ~ClipSwitchTest() override
    {
        clip_switch_clear(&clip_switch);
    }

    ClipSwitch clip_switch;
};

} // namespace

TEST_F(ClipSwitchTest, BeginsNoMoreThan50TimesASecond)
{
    const gint64 began = g_get_monotonic_time();
    for (int i = 0; i < 5; i++) {
        EXPECT_TRUE(clip_switch_begin(&clip_switch));
        clip_switch_end(&clip_switch);
    }
    EXPECT_GE(g_get_monotonic_time() - began, 80 * G_TIME_SPAN_MILLISECOND);
}

TEST_F(ClipSwitchTest, BeginsAtOnceAfterALongClip)
{
    clip_switch.earliest_time = 0;
    const gint64 began = g_get_monotonic_time();
    EXPECT_TRUE(clip_switch_begin(&clip_switch));
    EXPECT_LT(g_get_monotonic_time() - began, G_TIME_SPAN_SECOND);
}

TEST_F(ClipSwitchTest, DoesNotBeginOnceClosed)
{
    clip_switch_close(&clip_switch);
    EXPECT_FALSE(clip_switch_begin(&clip_switch));
}

TEST_F(ClipSwitchTest, BeginsAgainOnceReopened)
{
    clip_switch_close(&clip_switch);
    clip_switch_open(&clip_switch);
    EXPECT_TRUE(clip_switch_begin(&clip_switch));
}

TEST_F(ClipSwitchTest, WakesAWaitingThreadWhenClosed)
{
    clip_switch.earliest_time = g_get_monotonic_time() + G_TIME_SPAN_HOUR;
    bool begun = true;
    std::thread streaming([&] { begun = clip_switch_begin(&clip_switch); });
    clip_switch_close(&clip_switch);
    streaming.join();
    EXPECT_FALSE(begun);
}

/* On a busy machine one attempt may take long, but without the wake-up each takes 500 ms. */
TEST_F(ClipSwitchTest, ClosesAfterTheEndOfASwitch)
{
    gint64 shortest = G_MAXINT64;
    for (int i = 0; i < 5; i++) {
        clip_switch_open(&clip_switch);
        clip_switch.earliest_time = 0;
        EXPECT_TRUE(clip_switch_begin(&clip_switch));
        std::atomic<bool> ended = false;
        std::thread streaming([&] {
            ended = true;
            clip_switch_end(&clip_switch);
        });
        const gint64 began = g_get_monotonic_time();
        clip_switch_close(&clip_switch);
        shortest = std::min(shortest, g_get_monotonic_time() - began);
        EXPECT_TRUE(ended);
        streaming.join();
    }
    EXPECT_LT(shortest, 500 * G_TIME_SPAN_MILLISECOND);
}

TEST_F(ClipSwitchTest, ClosesAfter500MillisecondsIfASwitchDoesNotEnd)
{
    EXPECT_TRUE(clip_switch_begin(&clip_switch));
    const gint64 began = g_get_monotonic_time();
    clip_switch_close(&clip_switch);
    EXPECT_GE(g_get_monotonic_time() - began, 500 * G_TIME_SPAN_MILLISECOND);
}

TEST_F(ClipSwitchTest, ForgetsASwitchThatDidNotEndWhenReopened)
{
    EXPECT_TRUE(clip_switch_begin(&clip_switch));
    clip_switch_open(&clip_switch);
    const gint64 began = g_get_monotonic_time();
    clip_switch_close(&clip_switch);
    EXPECT_LT(g_get_monotonic_time() - began, 500 * G_TIME_SPAN_MILLISECOND);
}
