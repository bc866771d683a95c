#include "platform/change_notifier.h"

#include "event_test.h"

namespace
{

constexpr const char *LOST_LINE =
    "The platform's connection to the system bus was lost: Connection reset by peer.";
constexpr const char *AWAY_TEXT = "The system bus cannot be reached: No such file or directory";
constexpr const char *BAD_NAME = "the source name must consist of letters, digits and underscores";
constexpr const char *BAD_REFERENCE = "the service, object path or interface is missing or invalid";
constexpr const char *NOT_BEGUN = "no change was started, or a name of its entry is missing";

/* Returns the signal that a stranger receives for a change with `values`. */
std::string change(const std::string &values, const char *is_change = "false")
{
    return "/com/vesk/ConfigurationChanges1/Source com.vesk.ConfigurationChanges1.EntryChanged "
           "('com.vesk.A', '/a', 'com.vesk.B', '/a/3', " +
           std::string(is_change) + ", " + values + ")";
}

/* A notifier on the connection that the producer opened. */
class ChangeNotifierTest : public EventService
{
  protected:
    void SetUp() override
    {
        EventService::SetUp();
        notifier = change_notifier_new("Source", producer, nullptr);
        ASSERT_NE(notifier, nullptr);
    }

    ~ChangeNotifierTest() override
    {
        change_notifier_free(notifier);
        g_clear_error(&error);
    }

    bool send(bool is_change = false)
    {
        return change_notifier_send(notifier, "com.vesk.A", "/a", "com.vesk.B", "/a/3", is_change,
                                    &error);
    }

    /* Expects this text from the last failure, and clears it. */
    void expect_error(const char *text)
    {
        ASSERT_NE(error, nullptr);
        EXPECT_STREQ(error->message, text);
        g_clear_error(&error);
    }

    void lose_bus()
    {
        bus.stop();
        EXPECT_TRUE(run_until([] { return !g_main_context_pending(nullptr); }));
        expect_log(G_LOG_LEVEL_WARNING, LOST_LINE);
    }

    ChangeNotifier *notifier = nullptr;
    GError *error = nullptr;
};

using Lines = std::vector<std::string>;

/* Creating. */

TEST_F(ChangeNotifierTest, SendsNothingBeforeAChangeIsSent)
{
    const SignalLog heard(stranger, SERVICE);
    change_notifier_free(notifier);
    notifier = change_notifier_new("Other", producer, nullptr);
    change_notifier_declare(notifier, "com.vesk.A", "/a", "com.vesk.B", nullptr);
    change_notifier_begin_change(notifier);
    change_notifier_append_pair(notifier, "Name", "Door");
    settle();
    EXPECT_EQ(heard.lines, Lines{});
}

TEST_F(ChangeNotifierTest, NeedsAProducer)
{
    EXPECT_EQ(change_notifier_new("Source", nullptr, &error), nullptr);
    expect_error("the event producer is missing");
}

TEST_F(ChangeNotifierTest, NeedsASource)
{
    EXPECT_EQ(change_notifier_new(nullptr, producer, &error), nullptr);
    expect_error(BAD_NAME);
}

TEST_F(ChangeNotifierTest, NeedsABus)
{
    lose_bus();
    EXPECT_EQ(change_notifier_new("Other", producer, &error), nullptr);
    expect_error(AWAY_TEXT);
}

TEST_F(ChangeNotifierTest, FreesNothingForNull)
{
    change_notifier_free(nullptr);
}

TEST_F(ChangeNotifierTest, IsFreedWithoutABus)
{
    lose_bus();
    change_notifier_free(g_steal_pointer(&notifier));
}

class ChangeNotifierSource : public ChangeNotifierTest,
                             public testing::WithParamInterface<const char *>
{
};

TEST_P(ChangeNotifierSource, IsRefused)
{
    EXPECT_EQ(change_notifier_new(GetParam(), producer, &error), nullptr);
    expect_error(BAD_NAME);
}

INSTANTIATE_TEST_SUITE_P(Bad, ChangeNotifierSource,
                         testing::Values("", "a/b", "/a", "a/", "a.b", "a-b", "a b", "\u00e5"));

/* Declaring. */

struct Reference {
    const char *service;
    const char *object_path;
    const char *interface;
};

class ChangeNotifierReference : public ChangeNotifierTest,
                                public testing::WithParamInterface<Reference>
{
};

TEST_P(ChangeNotifierReference, IsRefused)
{
    const auto [service, object_path, interface] = GetParam();
    EXPECT_FALSE(change_notifier_declare(notifier, service, object_path, interface, &error));
    expect_error(BAD_REFERENCE);
}

INSTANTIATE_TEST_SUITE_P(Bad, ChangeNotifierReference,
                         testing::Values(Reference{nullptr, "/a", "com.vesk.B"},
                                         Reference{"a", "/a", "com.vesk.B"},
                                         Reference{"com.vesk.A", nullptr, "com.vesk.B"},
                                         Reference{"com.vesk.A", "a", "com.vesk.B"},
                                         Reference{"com.vesk.A", "/a", nullptr},
                                         Reference{"com.vesk.A", "/a", "B"}));

TEST_F(ChangeNotifierTest, DeclaresWhatChangesReferTo)
{
    EXPECT_TRUE(change_notifier_declare(notifier, "com.vesk.A", "/a", "com.vesk.B", &error));
    EXPECT_EQ(error, nullptr);
}

/* Sending. */

TEST_F(ChangeNotifierTest, TellsStrangersOfAnAddition)
{
    const SignalLog heard(stranger, SERVICE);
    change_notifier_begin_change(notifier);
    change_notifier_append_pair(notifier, "Name", "Door");
    EXPECT_TRUE(send());
    EXPECT_EQ(error, nullptr);
    settle();
    EXPECT_EQ(heard.lines, Lines{change("{'Name': 'Door'}")});
}

TEST_F(ChangeNotifierTest, TellsStrangersOfAChange)
{
    const SignalLog heard(stranger, SERVICE);
    change_notifier_begin_change(notifier);
    change_notifier_append_pair(notifier, "Name", "Door");
    EXPECT_TRUE(send(true));
    settle();
    EXPECT_EQ(heard.lines, Lines{change("{'Name': 'Door'}", "true")});
}

TEST_F(ChangeNotifierTest, KeepsTheOrderOfTheValues)
{
    const SignalLog heard(stranger, SERVICE);
    change_notifier_begin_change(notifier);
    change_notifier_append_pair(notifier, "z", "1");
    change_notifier_append_pair(notifier, "a", "3");
    change_notifier_append_pair(notifier, "m", "2");
    EXPECT_TRUE(send());
    settle();
    EXPECT_EQ(heard.lines, Lines{change("{'z': '1', 'a': '3', 'm': '2'}")});
}

TEST_F(ChangeNotifierTest, SendsAChangeWithoutValues)
{
    const SignalLog heard(stranger, SERVICE);
    change_notifier_begin_change(notifier);
    EXPECT_TRUE(send());
    settle();
    EXPECT_EQ(heard.lines, Lines{change("@a{ss} {}")});
}

TEST_F(ChangeNotifierTest, MakesTextValidThatIsNot)
{
    const SignalLog heard(stranger, SERVICE);
    change_notifier_begin_change(notifier);
    change_notifier_append_pair(notifier, "k\xe9", "caf\xe9\xef\xbf\xbe");
    EXPECT_TRUE(send());
    settle();
    EXPECT_EQ(heard.lines, Lines{change("{'k\ufffd': 'caf\ufffd\ufffd'}")});
}

TEST_F(ChangeNotifierTest, LeavesOutAValueWithoutKeyOrText)
{
    const SignalLog heard(stranger, SERVICE);
    change_notifier_begin_change(notifier);
    change_notifier_append_pair(notifier, nullptr, "a");
    change_notifier_append_pair(notifier, "a", nullptr);
    change_notifier_append_pair(notifier, "Name", "Door");
    EXPECT_TRUE(send());
    settle();
    EXPECT_EQ(heard.lines, Lines{change("{'Name': 'Door'}")});
}

TEST_F(ChangeNotifierTest, DropsWhatWasBegunBefore)
{
    const SignalLog heard(stranger, SERVICE);
    change_notifier_begin_change(notifier);
    change_notifier_append_pair(notifier, "Name", "Door");
    change_notifier_begin_change(notifier);
    change_notifier_append_pair(notifier, "Type", "audio");
    EXPECT_TRUE(send());
    settle();
    EXPECT_EQ(heard.lines, Lines{change("{'Type': 'audio'}")});
}

TEST_F(ChangeNotifierTest, SendsNothingThatWasNotBegun)
{
    const SignalLog heard(stranger, SERVICE);
    EXPECT_FALSE(send());
    expect_error(NOT_BEGUN);
    settle();
    EXPECT_EQ(heard.lines, Lines{});
}

TEST_F(ChangeNotifierTest, SendsAChangeOnce)
{
    const SignalLog heard(stranger, SERVICE);
    change_notifier_begin_change(notifier);
    EXPECT_TRUE(send());
    EXPECT_FALSE(send());
    expect_error(NOT_BEGUN);
    settle();
    EXPECT_EQ(heard.lines.size(), 1U);
}

TEST_F(ChangeNotifierTest, FailsForAReferenceThatTheBusCannotCarry)
{
    const SignalLog heard(stranger, SERVICE);
    change_notifier_begin_change(notifier);
    EXPECT_FALSE(
        change_notifier_send(notifier, "com.vesk.A", "/a", "com.vesk.B", "/a/\xe9", false, &error));
    expect_error("Invalid argument");
    settle();
    EXPECT_EQ(heard.lines, Lines{});
}

TEST_F(ChangeNotifierTest, AnswersNullArgumentsWithFailure)
{
    change_notifier_begin_change(nullptr);
    change_notifier_append_pair(nullptr, "a", "b");
    EXPECT_FALSE(change_notifier_declare(nullptr, "com.vesk.A", "/a", "com.vesk.B", &error));
    expect_error(BAD_REFERENCE);
    EXPECT_FALSE(
        change_notifier_send(nullptr, "com.vesk.A", "/a", "com.vesk.B", "/a/3", false, &error));
    expect_error(NOT_BEGUN);
    for (int missing = 0; missing < 4; missing++) {
        const char *arguments[] = {"com.vesk.A", "/a", "com.vesk.B", "/a/3"};
        arguments[missing] = nullptr;
        change_notifier_begin_change(notifier);
        EXPECT_FALSE(change_notifier_send(notifier, arguments[0], arguments[1], arguments[2],
                                          arguments[3], false, &error));
        expect_error(NOT_BEGUN);
    }
}

/* A bus that goes and comes. */

TEST_F(ChangeNotifierTest, FailsWithoutABus)
{
    lose_bus();
    change_notifier_begin_change(notifier);
    EXPECT_FALSE(send());
    expect_error(AWAY_TEXT);
}

TEST_F(ChangeNotifierTest, EndsAChangeThatCannotBeSent)
{
    lose_bus();
    change_notifier_begin_change(notifier);
    EXPECT_FALSE(send());
    expect_error(AWAY_TEXT);
    bus.start();
    EXPECT_FALSE(send());
    expect_error(NOT_BEGUN);
}

TEST_F(ChangeNotifierTest, SendsAgainWhenTheBusIsBack)
{
    lose_bus();
    bus.start();
    declare_playing(); /* reclaims the producer's name, which the log of signals filters by */
    GDBusConnection *late = bus.connect();
    {
        const SignalLog heard(late, SERVICE);
        change_notifier_begin_change(notifier);
        change_notifier_append_pair(notifier, "Name", "Door");
        EXPECT_TRUE(send());
        EXPECT_TRUE(run_until([&] { return !heard.lines.empty(); }));
        EXPECT_EQ(heard.lines, Lines{change("{'Name': 'Door'}")});
    }
    g_object_unref(late);
}

} // namespace
