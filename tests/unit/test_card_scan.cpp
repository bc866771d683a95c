#include "card_scan.h"

#include <cerrno>
#include <deque>
#include <gtest/gtest.h>
#include <libudev.h>

/* How the next calls fail, by errno. The last one must be EAGAIN, which ends the reading. */
static std::deque<int> failures;

/* Stands for the operation of udev's library: a socket without the kernel's events. */
extern "C" udev_device *udev_monitor_receive_device(udev_monitor *)
{
    errno = failures.front();
    failures.pop_front();
    return nullptr;
}

class CardScanTest : public ::testing::Test
{
  protected:
    ~CardScanTest() override
    {
        card_scan_free(scan);
    }

    CardScan *scan = card_scan_new();
};

TEST_F(CardScanTest, TakesLostEventsForAChange)
{
    ASSERT_NE(scan, nullptr);
    failures = {ENOBUFS, EINTR, EAGAIN};
    EXPECT_TRUE(card_scan_take_events(scan));
    EXPECT_TRUE(failures.empty());
}

TEST_F(CardScanTest, FindsNoChangeWithoutAnEvent)
{
    ASSERT_NE(scan, nullptr);
    failures = {EAGAIN};
    EXPECT_FALSE(card_scan_take_events(scan));
    EXPECT_TRUE(failures.empty());
}
