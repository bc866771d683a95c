#include "sonobrik_events_test.h"

/* Tests declaring and withdrawing the events, and sending the status of outputs. */

namespace
{

using SonobrikEvents = SonobrikEventsTest;
using SonobrikEventsState = SonobrikEventsTest;

} // namespace

TEST_F(SonobrikEvents, DeclaresAllPlayingEventsBeforeTheOthers)
{
    platform.devices = {{0, 0, 0}, {3, 3, 1}};
    EXPECT_TRUE(sonobrik_events_setup());
    EXPECT_EQ(take_calls(), Calls({
                                "open SonoBrikEvents",
                                "list devices",
                                "declare Playing 0 0 0 as 10",
                                "declare Playing 3 3 1 as 11",
                                "list devices",
                                "declare and notify CurrentlyPlaying 0 0 0 as 12",
                                "declare and notify CurrentlyPlaying 3 3 1 as 13",
                                "set up change notices of SonoBrikEvents",
                            }));
}

TEST_F(SonobrikEvents, SetsUpTheChangeNoticesEvenWithoutAnEventSystem)
{
    platform.open_fails = true;
    EXPECT_TRUE(sonobrik_events_setup());
    EXPECT_EQ(take_calls().back(), "set up change notices of nobody");
}

TEST_F(SonobrikEvents, FailsToSetUpWithoutChangeNotices)
{
    platform.change_notices_fail = true;
    EXPECT_FALSE(sonobrik_events_setup());
}

TEST_F(SonobrikEvents, DeclaresNothingWithoutAPlayingTemplate)
{
    platform.playing_template_fails = true;
    platform.devices = {{1, 1, 0}};
    sonobrik_events_setup();
    EXPECT_EQ(take_calls(), Calls({
                                "open SonoBrikEvents",
                                "list devices",
                                "no template for Playing 1 1 0",
                                "list devices",
                                "declare and notify CurrentlyPlaying 1 1 0 as 10",
                                "set up change notices of SonoBrikEvents",
                            }));
}

TEST_F(SonobrikEvents, DeclaresNothingWithoutACurrentlyPlayingTemplate)
{
    platform.currently_playing_template_fails = true;
    platform.devices = {{1, 1, 0}};
    sonobrik_events_setup();
    EXPECT_EQ(take_calls(), Calls({
                                "open SonoBrikEvents",
                                "list devices",
                                "declare Playing 1 1 0 as 10",
                                "list devices",
                                "no template for CurrentlyPlaying 1 1 0",
                                "set up change notices of SonoBrikEvents",
                            }));
}

TEST_F(SonobrikEvents, TeardownClosesTheProducer)
{
    set_up({{0, 0, 0}});
    sonobrik_events_teardown();
    EXPECT_EQ(take_calls(), Calls({"tear down change notices", "close"}));
}

TEST_F(SonobrikEvents, SecondTeardownDoesNotCloseTheProducerAgain)
{
    set_up({});
    sonobrik_events_teardown();
    take_calls();
    sonobrik_events_teardown();
    EXPECT_EQ(take_calls(), Calls({"tear down change notices"}));
}

TEST_F(SonobrikEventsState, ReportsThatAnOutputPlays)
{
    set_up({{0, 0, 0}});
    sonobrik_events_set_file_state(true, 0, -1, -1);
    EXPECT_EQ(take_calls(), Calls({"prepare async 10", "send 10 Playing=1", "release 10"}));
    expect_no_log();
}

TEST_F(SonobrikEventsState, ReportsThatAnOutputStopped)
{
    set_up({{0, 0, 0}});
    sonobrik_events_set_file_state(false, 0, -1, -1);
    EXPECT_EQ(take_calls(), Calls({"prepare async 10", "send 10 Playing=0", "release 10"}));
}

TEST_F(SonobrikEventsState, FindsTheEventByTheOutputNumber)
{
    set_up({{0, 0, 0}, {5, 5, 0}});
    sonobrik_events_set_file_state(true, 5, 0, 0);
    EXPECT_EQ(take_calls().front(), "prepare async 11");
}

TEST_F(SonobrikEventsState, FindsTheEventByTheDeviceWithoutAnOutputNumber)
{
    set_up({{0, 0, 0}, {2, 2, 0}});
    sonobrik_events_set_file_state(true, -1, 2, 0);
    EXPECT_EQ(take_calls().front(), "prepare async 11");
}

TEST_F(SonobrikEventsState, FindsOnlyTheDeclaredOutputOfADevice)
{
    set_up({{2, 2, 0}});
    sonobrik_events_set_file_state(true, -1, 2, 1);
    EXPECT_EQ(take_calls(), Calls());
    expect_not_found("sonobrik_events_set_file_state", -1, 2, 1);
}

TEST_F(SonobrikEventsState, LogsAnOutputWithoutAnEvent)
{
    set_up({{0, 0, 0}});
    sonobrik_events_set_file_state(true, 3, -1, -1);
    EXPECT_EQ(take_calls(), Calls());
    expect_not_found("sonobrik_events_set_file_state", 3, -1, -1);
}

TEST_F(SonobrikEventsState, LogsAnOutputWhoseDeclarationFailed)
{
    platform.next_id = 0;
    set_up({{0, 0, 0}});
    sonobrik_events_set_file_state(true, 0, -1, -1);
    sonobrik_events_set_file_state(true, -1, 0, 0);
    EXPECT_EQ(take_calls(), Calls());
    expect_not_found("sonobrik_events_set_file_state", 0, -1, -1);
    expect_not_found("sonobrik_events_set_file_state", -1, 0, 0);
}

TEST_F(SonobrikEventsState, LogsARequestBeforeTheSetUp)
{
    sonobrik_events_set_file_state(true, -1, 2, 0);
    expect_not_found("sonobrik_events_set_file_state", -1, 2, 0);
}

/* The slots of both kinds are adjacent, so a write beyond one would show in the other. */
TEST_F(SonobrikEventsState, HasNoSlotForASeventhOutput)
{
    set_up({{6, 6, 0}, {7, 7, 0}, {G_MAXINT32, G_MAXINT32, 0}});
    for (gint32 output = 0; output <= 7; output++) {
        sonobrik_events_set_file_state(true, output, -1, -1);
        expect_not_found("sonobrik_events_set_file_state", output, -1, -1);
    }
    EXPECT_EQ(take_calls(), Calls());
}

TEST_F(SonobrikEventsState, HasNoSlotForANegativeOutput)
{
    set_up({{-2, 2, 0}, {G_MININT32, 3, 0}});
    sonobrik_events_set_file_state(true, -2, -1, -1);
    expect_not_found("sonobrik_events_set_file_state", -2, -1, -1);
    EXPECT_EQ(take_calls(), Calls());
}

TEST_F(SonobrikEventsState, FindsASeventhOutputByItsDevice)
{
    set_up({{6, 6, 2}});
    sonobrik_events_set_file_state(true, -1, 6, 2);
    EXPECT_EQ(take_calls().front(), "prepare async 10");
}

TEST_F(SonobrikEventsState, StoresADeviceWithoutAnOutputNumber)
{
    set_up({{-1, 4, 2}});
    sonobrik_events_set_file_state(true, -1, 4, 2);
    EXPECT_EQ(take_calls().front(), "prepare async 10");
}

TEST_F(SonobrikEventsState, DoesNotStoreADeviceWithoutAnId)
{
    set_up({{1, -1, 0}, {2, 3, -1}});
    sonobrik_events_set_file_state(true, -1, -1, 0);
    sonobrik_events_set_file_state(true, -1, 3, -1);
    EXPECT_EQ(take_calls(), Calls());
    clear_log();
    sonobrik_events_set_file_state(true, 1, -1, 0);
    EXPECT_EQ(take_calls().front(), "prepare async 10");
}

TEST_F(SonobrikEventsState, UsesTheLaterOfTwoEventsOfADevice)
{
    set_up({{1, 2, 0}, {3, 2, 0}});
    sonobrik_events_set_file_state(true, -1, 2, 0);
    EXPECT_EQ(take_calls().front(), "prepare async 11");
}

TEST_F(SonobrikEventsState, TeardownForgetsTheDevices)
{
    set_up({{2, 2, 0}});
    sonobrik_events_teardown();
    take_calls();
    sonobrik_events_set_file_state(true, -1, 2, 0);
    EXPECT_EQ(take_calls(), Calls());
    clear_log();
}

TEST_F(SonobrikEventsState, LogsAnEventThatCannotBePrepared)
{
    set_up({{0, 0, 0}});
    platform.prepare_fails = true;
    sonobrik_events_set_file_state(true, 0, -1, -1);
    EXPECT_EQ(take_calls(), Calls({"prepare async 10"}));
    expect_log(G_LOG_LEVEL_WARNING, "Failed to prepare event.");
}

TEST_F(SonobrikEventsState, LogsAStateThatCannotBeSet)
{
    set_up({{0, 0, 0}});
    platform.set_fails = true;
    sonobrik_events_set_file_state(true, 0, -1, -1);
    EXPECT_EQ(take_calls(), Calls({"prepare async 10", "release 10"}));
    expect_log(G_LOG_LEVEL_WARNING, "Failed to set event state for id: 10");
}

TEST_F(SonobrikEventsState, LogsAnEventThatWasNotSent)
{
    set_up({{0, 0, 0}});
    platform.send_error = "nobody 100% listens";
    sonobrik_events_set_file_state(true, 0, -1, -1);
    expect_log(G_LOG_LEVEL_WARNING, "Failed to send event with id: 10: nobody 100% listens");
}
