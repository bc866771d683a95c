#include "sonobrik_parameters.h"

#include <gtest/gtest.h>

#include "group_dbus.h"

namespace
{

bool setup_result;
int setups;
int teardowns;

} // namespace

bool sonobrik_group_dbus_setup()
{
    setups++;
    return setup_result;
}

void sonobrik_group_dbus_teardown()
{
    teardowns++;
}

TEST(Parameters, SetupStartsTheLegacyInterfaceAndReturnsItsResult)
{
    setups = 0;
    setup_result = true;
    EXPECT_TRUE(sonobrik_parameters_setup());
    EXPECT_EQ(setups, 1);
    setup_result = false;
    EXPECT_FALSE(sonobrik_parameters_setup());
    EXPECT_EQ(setups, 2);
}

TEST(Parameters, TeardownStopsTheLegacyInterface)
{
    teardowns = 0;
    sonobrik_parameters_teardown();
    EXPECT_EQ(teardowns, 1);
}
