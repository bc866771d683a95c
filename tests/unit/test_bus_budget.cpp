#include "bus_budget.h"

#include "log_test.h"

namespace
{

using BusBudget = LogTest;

TEST_F(BusBudget, IsTakenUntilNothingIsLeft)
{
    size_t left = 10;
    EXPECT_TRUE(bus_budget_take(&left, 4));
    EXPECT_EQ(left, 6U);
    EXPECT_FALSE(bus_budget_take(&left, 7));
    EXPECT_EQ(left, 6U);
    EXPECT_TRUE(bus_budget_take(&left, 6));
    EXPECT_EQ(left, 0U);
    EXPECT_FALSE(bus_budget_take(&left, 1));
}

TEST_F(BusBudget, FullMessageIsReportedWithTheNumberOfClipsThatItLacks)
{
    g_autoptr(GSList) left_out = g_slist_prepend(g_slist_prepend(nullptr, nullptr), nullptr);
    bus_budget_report(left_out, "the reply");
    expect_log(G_LOG_LEVEL_WARNING,
               "Left out 2 clips, because the reply would exceed 16777216 bytes");
    bus_budget_report(nullptr, "the reply");
    expect_no_log();
}

} // namespace
