#include "audioclip_methods.h"

#include <cerrno>

#include "audioclip_dbus.h"
#include "bus_server.h"
#include "failing_calls.h"
#include "fake_audio_clip.h"
#include "held_call.h"
#include "private_bus.h"

namespace
{

using Calls = std::vector<std::string>;

constexpr const char *NONCHARACTER = "\xEF\xBF\xBE"; /* U+FFFE */
constexpr const char *BUSY = "A clip is already playing.";

class PlaybackTest : public BusTest
{
  protected:
    PlaybackTest()
    {
        held_call_setup();
        server.serve("/PlayClip", sonobrik_play_clip_synchronous, &clip);
        server.serve("/StartPlayingClip", sonobrik_play_clip_asynchronous, &clip);
        server.serve("/StopPlayingClip", sonobrik_stop_clip, &clip);
    }

    ~PlaybackTest() override
    {
        held_call_teardown();
    }

    /* Calls a method and waits for the answer. Each method has its own object. */
    std::string call(const std::string &method, GVariant *arguments)
    {
        return bus_call(stranger, server.name, "/" + method, "com.vesk.Test", method, arguments);
    }

    std::string call(const std::string &method, const char *options)
    {
        return call(method, g_variant_new("(s)", options));
    }

    /* Starts a call whose answer may be held, and waits until it has been handled. */
    std::unique_ptr<PendingCall> begin(const std::string &method, const char *options)
    {
        auto pending = std::make_unique<PendingCall>(stranger, server.name, ("/" + method).c_str(),
                                                     "com.vesk.Test", method.c_str(),
                                                     g_variant_new("(s)", options));
        settle(stranger, server.name);
        return pending;
    }

    AudioClip clip;
    BusServer server;
    FailingCalls library;
};

/* Tests for all three methods. */
class AnyPlaybackMethodTest : public PlaybackTest,
                              public ::testing::WithParamInterface<const char *>
{
  protected:
    std::string error(const std::string &text)
    {
        return std::string("com.vesk.Sonobrik.") + GetParam() + ": " + text;
    }
};

} // namespace

INSTANTIATE_TEST_SUITE_P(Methods, AnyPlaybackMethodTest,
                         ::testing::Values("PlayClip", "StartPlayingClip", "StopPlayingClip"),
                         [](const auto &method) { return std::string(method.param); });

TEST_P(AnyPlaybackMethodTest, WrongArgumentTypeIsAnsweredWithTheReason)
{
    EXPECT_EQ(call(GetParam(), g_variant_new("(i)", 5)),
              error("Failed to parse parameter(s): No such device or address."));
    EXPECT_EQ(clip.calls, Calls{});
    expect_no_log();
}

TEST_P(AnyPlaybackMethodTest, OptionsThatSdBusRefusesAreAnsweredWithTheReason)
{
    EXPECT_EQ(call(GetParam(), NONCHARACTER), error("Failed to parse parameter(s): Bad message."));
    EXPECT_EQ(clip.calls, Calls{});
    expect_no_log();
}

TEST_P(AnyPlaybackMethodTest, NothingIsDoneWithoutAReply)
{
    library.fail("sd_bus_message_new_method_return", -ENOMEM);
    EXPECT_EQ(call(GetParam(), "options"),
              "org.freedesktop.DBus.Error.AccessDenied: Operation not permitted");
    EXPECT_EQ(clip.calls, Calls{});
    expect_log(G_LOG_LEVEL_INFO, "sonobrik_dbus_method_new_reply failed to create dbus method "
                                 "reply message due to 'Cannot allocate memory'");
    expect_log(G_LOG_LEVEL_WARNING,
               "sonobrik_dbus_method_send_reply has been called with invalid arguments");
    expect_no_log();
}

TEST_P(AnyPlaybackMethodTest, CallWithoutReplyExpectedIsHandled)
{
    g_dbus_connection_call(stranger, server.name.c_str(), (std::string("/") + GetParam()).c_str(),
                           "com.vesk.Test", GetParam(), g_variant_new("(s)", "options"), nullptr,
                           G_DBUS_CALL_FLAGS_NONE, -1, nullptr, nullptr, nullptr);
    settle(stranger, server.name);
    EXPECT_EQ(clip.calls.size(), 1U);
    clip.end();
    settle(stranger, server.name);
}

/* StartPlayingClip. */

TEST_F(PlaybackTest, StartIsAnsweredAtOnce)
{
    EXPECT_EQ(call("StartPlayingClip", "location=a%20b.wav&repeat=1"), "('OK',)");
    EXPECT_EQ(clip.calls, Calls{"start location=a%20b.wav&repeat=1"});
    expect_log(G_LOG_LEVEL_INFO,
               "sonobrik_play_clip_asynchronous with options: location=a%20b.wav&repeat=1");
    expect_no_log();
}

TEST_F(PlaybackTest, StartThatIsRefusedAnswersThePlayersText)
{
    clip.refusal = "Failed to parse/validate option string: 'volume=%s'";
    EXPECT_EQ(call("StartPlayingClip", "volume=%s"),
              "com.vesk.Sonobrik.StartPlayingClip: Failed to parse/validate option string: "
              "'volume=%s'");
    expect_no_log();
}

TEST_F(PlaybackTest, StartThatIsRefusedWhilePlayClipIsHeldIsNotOk)
{
    const auto held = begin("PlayClip", "first");
    clip.refusal = BUSY;
    EXPECT_EQ(call("StartPlayingClip", "second"),
              std::string("com.vesk.Sonobrik.StartPlayingClip: ") + BUSY);
    EXPECT_FALSE(held->is_answered());
}

TEST_F(PlaybackTest, StartWhoseResultCannotBeAppendedAnswersNok)
{
    library.fail("sd_bus_message_append", -ENOMEM);
    EXPECT_EQ(call("StartPlayingClip", "options"), "com.vesk.Sonobrik.StartPlayingClip: NOK");
    expect_no_log();
}

TEST_F(PlaybackTest, StartWhoseReplyCannotBeSentAnswersTheError)
{
    library.fail("sd_bus_send", -ENOBUFS);
    EXPECT_EQ(call("StartPlayingClip", "options"),
              "com.vesk.Sonobrik.StartPlayingClip: Failed to send a positive dbus response");
}

TEST_F(PlaybackTest, EndOfAStartedClipAnswersNobody)
{
    call("StartPlayingClip", "options");
    clear_log();
    clip.end();
    EXPECT_EQ(library.count("sd_bus_reply_method_return"), 0);
    expect_no_log();
}

TEST_F(PlaybackTest, LineWithTheOptionsFollowsTheReply)
{
    struct Seen {
        FailingCalls *library;
        std::vector<int> replies; /* sent before each line */
    } seen = {&library, {}};
    const GLogFunc own = g_log_set_default_handler(
        [](const gchar *, GLogLevelFlags, const gchar *, gpointer user_data) {
            auto *at = static_cast<Seen *>(user_data);
            at->replies.push_back(at->library->count("sd_bus_send"));
        },
        &seen);
    call("StartPlayingClip", "options");
    call("StopPlayingClip", "options");
    g_log_set_default_handler(own, this);
    EXPECT_EQ(seen.replies, (std::vector<int>{1, 2}));
}

/* The failure is noticed after the line's place in the log. */
TEST_F(PlaybackTest, LineWithTheOptionsPrecedesTheFailureToSend)
{
    library.fail("sd_bus_send", -ENOBUFS);
    call("StopPlayingClip", "options");
    expect_log(G_LOG_LEVEL_INFO, "sonobrik_stop_clip with options: options");
    expect_log(G_LOG_LEVEL_INFO, "sonobrik_dbus_method_send_reply failed to send positive reply "
                                 "message due to No buffer space available");
    expect_no_log();
}

/* StopPlayingClip. */

TEST_F(PlaybackTest, StopIsAnsweredEvenIfNothingPlays)
{
    EXPECT_EQ(call("StopPlayingClip", "options"), "('OK',)");
    EXPECT_EQ(clip.calls, Calls{"stop options"});
    expect_log(G_LOG_LEVEL_INFO, "sonobrik_stop_clip with options: options");
    expect_no_log();
}

TEST_F(PlaybackTest, StopThatFailsAnswersNok)
{
    clip.stops = false;
    EXPECT_EQ(call("StopPlayingClip", "options"), "com.vesk.Sonobrik.StopPlayingClip: NOK");
    expect_no_log();
}

TEST_F(PlaybackTest, StopWhoseResultCannotBeAppendedAnswersNok)
{
    library.fail("sd_bus_message_append", -ENOMEM);
    EXPECT_EQ(call("StopPlayingClip", "options"), "com.vesk.Sonobrik.StopPlayingClip: NOK");
    EXPECT_EQ(clip.calls, Calls{"stop options"});
    expect_no_log();
}

/* PlayClip. */

TEST_F(PlaybackTest, PlayIsAnsweredWhenItsClipHasEnded)
{
    const auto held = begin("PlayClip", "location=a.wav");
    EXPECT_EQ(clip.calls, Calls{"start location=a.wav"});
    EXPECT_FALSE(held->is_answered());
    clip.end();
    EXPECT_EQ(held->wait(), "('OK',)");
    expect_no_log();
}

TEST_F(PlaybackTest, HeldCallIsAnsweredOnce)
{
    const auto held = begin("PlayClip", "options");
    clip.end();
    clip.end();
    EXPECT_EQ(library.count("sd_bus_reply_method_return"), 1);
    expect_no_log();
}

TEST_F(PlaybackTest, SecondPlayAfterTheFirstEndedIsHeldToo)
{
    const auto first = begin("PlayClip", "first");
    clip.end();
    EXPECT_EQ(first->wait(), "('OK',)");
    const auto second = begin("PlayClip", "second");
    EXPECT_FALSE(second->is_answered());
    clip.end();
    EXPECT_EQ(second->wait(), "('OK',)");
    expect_no_log();
}

TEST_F(PlaybackTest, PlayThatIsRefusedAnswersThePlayersText)
{
    clip.refusal = "Failed to parse/validate option string: 'volume=-1'";
    EXPECT_EQ(call("PlayClip", "volume=-1"),
              "com.vesk.Sonobrik.PlayClip: Failed to parse/validate option string: 'volume=-1'");
    clip.end();
    expect_no_log();
}

TEST_F(PlaybackTest, StopAnswersTheHeldCallerFirst)
{
    const auto held = begin("PlayClip", "options");
    PendingCall stop(stranger, server.name, "/StopPlayingClip", "com.vesk.Test", "StopPlayingClip",
                     g_variant_new("(s)", "options"));
    EXPECT_EQ(stop.wait(), "('OK',)");
    ASSERT_TRUE(held->is_answered());
    EXPECT_EQ(held->wait(), "('OK',)");
    EXPECT_EQ(held->rank() + 1, stop.rank());
}

TEST_F(PlaybackTest, StopThatFailsAnswersTheHeldCallerToo)
{
    clip.stops = false;
    const auto held = begin("PlayClip", "options");
    EXPECT_EQ(call("StopPlayingClip", "options"), "com.vesk.Sonobrik.StopPlayingClip: NOK");
    EXPECT_EQ(held->wait(), "('OK',)");
}

TEST_F(PlaybackTest, PlayWhileAPlayIsHeldIsOkAtOnce)
{
    const auto held = begin("PlayClip", "first");
    clip.refusal = BUSY;
    EXPECT_EQ(call("PlayClip", "second"), "('OK',)");
    expect_log(G_LOG_LEVEL_INFO, "sonobrik_play_clip_synchronous with options: second");
    EXPECT_FALSE(held->is_answered());
    clip.end();
    EXPECT_EQ(held->wait(), "('OK',)");
    EXPECT_EQ(library.count("sd_bus_reply_method_return"), 1);
    expect_no_log();
}

TEST_F(PlaybackTest, PlayWhileAPlayIsHeldAnswersThePlayersTextIfOkCannotBeAppended)
{
    const auto held = begin("PlayClip", "first");
    clip.refusal = BUSY;
    library.fail("sd_bus_message_append", -ENOMEM);
    EXPECT_EQ(call("PlayClip", "second"), std::string("com.vesk.Sonobrik.PlayClip: ") + BUSY);
    expect_no_log();
}

TEST_F(PlaybackTest, PlayWhileAStartedClipPlaysAnswersThePlayersText)
{
    call("StartPlayingClip", "first");
    clear_log();
    clip.refusal = BUSY;
    EXPECT_EQ(call("PlayClip", "second"), std::string("com.vesk.Sonobrik.PlayClip: ") + BUSY);
    expect_no_log();
}

TEST_F(PlaybackTest, PlayThatIsRefusedAfterTheHeldClipBecameInactiveAnswersThePlayersText)
{
    const auto held = begin("PlayClip", "first");
    clip.active = false; /* without notifying the D-Bus side */
    clip.refusal = "No supported file(s) found at 'second'.";
    EXPECT_EQ(call("PlayClip", "second"),
              "com.vesk.Sonobrik.PlayClip: No supported file(s) found at 'second'.");
    EXPECT_FALSE(held->is_answered());
    expect_no_log();
}

TEST_F(PlaybackTest, PlayThatStartsWhileOneIsHeldReplacesIt)
{
    const auto old = begin("PlayClip", "first");
    const auto held = begin("PlayClip", "second");
    expect_log(LOG_LEVEL_ERROR, "No synchronous message should exist at this point.");
    clip.end();
    EXPECT_EQ(held->wait(), "('OK',)");
    settle(stranger, server.name);
    EXPECT_FALSE(old->is_answered());
    expect_no_log();
}

TEST_F(PlaybackTest, PlayThatCannotBeHeldIsNotPending)
{
    library.fail("sd_bus_message_ref", 0);
    const auto lost = begin("PlayClip", "options");
    expect_log(G_LOG_LEVEL_WARNING, "Failed to obtain reference to the sd_bus_message.");
    EXPECT_FALSE(lost->is_answered());
    clip.end();
    settle(stranger, server.name);
    EXPECT_FALSE(lost->is_answered());
    expect_no_log();
}

TEST_F(PlaybackTest, EndWithoutThePendingMessageIsLoggedOnce)
{
    const auto old = begin("PlayClip", "first");
    library.fail("sd_bus_message_ref", 0);
    const auto lost = begin("PlayClip", "second");
    expect_log(LOG_LEVEL_ERROR, "No synchronous message should exist at this point.");
    expect_log(G_LOG_LEVEL_WARNING, "Failed to obtain reference to the sd_bus_message.");
    clip.end();
    expect_log(LOG_LEVEL_ERROR, "audioclip_dbus_synchronous_sd_bus_reply was called unexpectedly");
    clip.end();
    EXPECT_EQ(library.count("sd_bus_reply_method_return"), 0);
    expect_no_log();
}

TEST_F(PlaybackTest, HeldCallWhoseAnswerCannotBeSentIsDropped)
{
    const auto held = begin("PlayClip", "options");
    library.fail("sd_bus_reply_method_return", -ENOBUFS);
    clip.end();
    expect_log(G_LOG_LEVEL_WARNING, "Could not send the D-Bus response: No buffer space available");
    library.restore("sd_bus_reply_method_return");
    clip.end();
    settle(stranger, server.name);
    EXPECT_FALSE(held->is_answered());
    expect_no_log();
}

TEST_F(PlaybackTest, CallerThatDisconnectedBeforeItsAnswerDoesNoHarm)
{
    GDBusConnection *visitor = bus.connect();
    {
        const PendingCall left(visitor, server.name, "/PlayClip", "com.vesk.Test", "PlayClip",
                               g_variant_new("(s)", "options"));
        settle(visitor, server.name);
    }
    g_dbus_connection_close_sync(visitor, nullptr, nullptr);
    g_object_unref(visitor);
    clip.end();
    EXPECT_EQ(library.count("sd_bus_reply_method_return"), 1);
    settle(stranger, server.name);
    expect_no_log();
}

TEST_F(PlaybackTest, EndWithoutAHeldCallDoesNothing)
{
    library.made.clear();
    audioclip_dbus_notify_request_finished();
    EXPECT_EQ(library.made, Calls{});
    expect_no_log();
}

/* Set-up and teardown. */

TEST_F(PlaybackTest, TeardownDropsTheHeldCall)
{
    const auto held = begin("PlayClip", "options");
    held_call_teardown();
    settle(stranger, server.name);
    EXPECT_FALSE(held->is_answered());
    EXPECT_EQ(library.count("sd_bus_reply_method_return"), 0);
    expect_no_log();
}

TEST_F(PlaybackTest, EndAfterTheTeardownFindsNoCall)
{
    const auto held = begin("PlayClip", "options");
    held_call_teardown();
    clip.end();
    expect_log(LOG_LEVEL_ERROR, "audioclip_dbus_synchronous_sd_bus_reply was called unexpectedly");
    expect_no_log();
}

TEST_F(PlaybackTest, SetUpBeginsWithoutAHeldCall)
{
    const auto held = begin("PlayClip", "options");
    held_call_teardown();
    held_call_setup();
    clip.end();
    expect_no_log();
}

TEST_F(PlaybackTest, SecondTeardownDoesNothing)
{
    const auto held = begin("PlayClip", "options");
    held_call_teardown();
    held_call_teardown();
    expect_no_log();
}
