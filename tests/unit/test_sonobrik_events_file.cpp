#include "sonobrik_events_test.h"

/* Tests sending the file that an output plays, from any thread, once its event is acknowledged. */

namespace
{

using SonobrikEventsFile = SonobrikEventsTest;

} // namespace

TEST_F(SonobrikEventsFile, IsSentFromTheMainLoop)
{
    set_up({{0, 0, 0}});
    acknowledge();
    sonobrik_events_set_file("/clips/a.wav", 0, -1, -1);
    EXPECT_EQ(take_calls(), Calls());
    run_pending_sources();
    EXPECT_EQ(take_calls(), Calls({"prepare 11", "send 11 FileName=/clips/a.wav", "release 11"}));
    expect_no_log();
}

TEST_F(SonobrikEventsFile, MayComeFromAnotherThread)
{
    set_up({{0, 0, 0}});
    acknowledge();
    std::thread([] { sonobrik_events_set_file("/clips/a.wav", 0, -1, -1); }).join();
    run_pending_sources();
    EXPECT_EQ(take_calls(), Calls({"prepare 11", "send 11 FileName=/clips/a.wav", "release 11"}));
    EXPECT_EQ(platform.sending_thread, std::this_thread::get_id());
}

TEST_F(SonobrikEventsFile, IsCopied)
{
    set_up({{0, 0, 0}});
    acknowledge();
    char path[] = "/clips/a.wav";
    sonobrik_events_set_file(path, 0, -1, -1);
    path[7] = 'z';
    run_pending_sources();
    EXPECT_EQ(take_calls()[1], "send 11 FileName=/clips/a.wav");
}

TEST_F(SonobrikEventsFile, AreSentInOrder)
{
    set_up({{0, 0, 0}});
    acknowledge();
    sonobrik_events_set_file("/clips/a.wav", 0, -1, -1);
    sonobrik_events_set_file("/clips/b.wav", 0, -1, -1);
    run_pending_sources();
    const Calls calls = take_calls();
    EXPECT_EQ(calls[1], "send 11 FileName=/clips/a.wav");
    EXPECT_EQ(calls[4], "send 11 FileName=/clips/b.wav");
}

TEST_F(SonobrikEventsFile, NullSendsNothing)
{
    set_up({{0, 0, 0}});
    acknowledge();
    sonobrik_events_set_file(nullptr, 0, -1, -1);
    EXPECT_FALSE(g_main_context_pending(nullptr));
}

TEST_F(SonobrikEventsFile, FindsTheEventByTheDeviceWithoutAnOutputNumber)
{
    set_up({{0, 0, 0}, {2, 2, 0}});
    acknowledge();
    sonobrik_events_set_file("/clips/a.wav", -1, 2, 0);
    run_pending_sources();
    EXPECT_EQ(take_calls().front(), "prepare 13");
}

TEST_F(SonobrikEventsFile, LogsAnOutputWithoutAnEvent)
{
    set_up({{0, 0, 0}});
    acknowledge();
    sonobrik_events_set_file("/clips/a.wav", 3, -1, -1);
    run_pending_sources();
    EXPECT_EQ(take_calls(), Calls());
    expect_not_found("event_set_file_mainloop", 3, -1, -1);
}

TEST_F(SonobrikEventsFile, HasNoSlotForASeventhOutput)
{
    set_up({{6, 6, 0}});
    acknowledge();
    sonobrik_events_set_file("/clips/a.wav", 6, -1, -1);
    run_pending_sources();
    EXPECT_EQ(take_calls(), Calls());
    expect_not_found("event_set_file_mainloop", 6, -1, -1);
}

TEST_F(SonobrikEventsFile, LogsAnEventThatCannotBePrepared)
{
    set_up({{0, 0, 0}});
    acknowledge();
    platform.prepare_fails = true;
    sonobrik_events_set_file("/clips/a.wav", 0, -1, -1);
    run_pending_sources();
    EXPECT_EQ(take_calls(), Calls({"prepare 11"}));
    expect_log(LOG_LEVEL_ERROR, "Failed to prepare event.");
}

TEST_F(SonobrikEventsFile, LogsANameThatCannotBeSet)
{
    set_up({{0, 0, 0}});
    acknowledge();
    platform.set_fails = true;
    sonobrik_events_set_file("/clips/a.wav", 0, -1, -1);
    run_pending_sources();
    EXPECT_EQ(take_calls(), Calls({"prepare 11", "release 11"}));
    expect_log(LOG_LEVEL_ERROR, "Failed to set event state for id: 11");
}

TEST_F(SonobrikEventsFile, LogsAnEventThatWasNotSent)
{
    set_up({{0, 0, 0}});
    acknowledge();
    platform.send_error = "nobody listens";
    sonobrik_events_set_file("/clips/a.wav", 0, -1, -1);
    run_pending_sources();
    expect_log(G_LOG_LEVEL_WARNING, "Failed to send event with id: 11: nobody listens");
}

TEST_F(SonobrikEventsFile, WaitsForFiveTurnsOfTheLoop)
{
    set_up({{0, 0, 0}});
    sonobrik_events_set_file("/clips/a.wav", 0, -1, -1);
    for (int turn = 1; turn <= 5; turn++) {
        g_main_context_iteration(nullptr, FALSE);
    }
    acknowledge();
    run_pending_sources();
    EXPECT_EQ(take_calls()[1], "send 11 FileName=/clips/a.wav");
}

TEST_F(SonobrikEventsFile, IsDroppedWithoutALogAtTheSixthTurn)
{
    set_up({{0, 0, 0}});
    sonobrik_events_set_file("/clips/a.wav", 0, -1, -1);
    for (int turn = 1; turn <= 6; turn++) {
        EXPECT_TRUE(g_main_context_pending(nullptr));
        g_main_context_iteration(nullptr, FALSE);
    }
    EXPECT_FALSE(g_main_context_pending(nullptr));
    acknowledge();
    run_pending_sources();
    EXPECT_EQ(take_calls(), Calls());
    expect_no_log();
}

TEST_F(SonobrikEventsFile, WaitsAgainAfterANewSetUp)
{
    set_up({{0, 0, 0}});
    acknowledge();
    sonobrik_events_teardown();
    set_up({{0, 0, 0}});
    sonobrik_events_set_file("/clips/a.wav", 0, -1, -1);
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(take_calls(), Calls());
}
