#include "platform/event_service.h"

#include <atomic>

#include "event_test.h"

namespace
{

constexpr const char *LOST_LINE =
    "The platform's connection to the system bus was lost: Connection reset by peer.";

using EventServiceAlone = LogTest;

/* Opening and closing. */

TEST_F(EventService, TakesTheProducersName)
{
    EXPECT_EQ(bus_call(stranger, "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                       "NameHasOwner", g_variant_new("(s)", SERVICE)),
              "(true,)");
}

TEST_F(EventService, GivesTheNameBackWhenClosed)
{
    event_service_close(g_steal_pointer(&producer));
    EXPECT_TRUE(run_until([&] {
        return bus_call(stranger, "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                        "NameHasOwner", g_variant_new("(s)", SERVICE)) == "(false,)";
    }));
}

TEST_F(EventService, ServesTwoProducersAndClosesThemApart)
{
    EventProducer *other = event_service_open("Other");
    ASSERT_NE(other, nullptr);
    declare_playing();
    event_service_close(other);
    EXPECT_EQ(get("StateKey"), "'Playing'");
    EXPECT_EQ(bus_call(stranger, "org.freedesktop.DBus", "/", "org.freedesktop.DBus",
                       "NameHasOwner", g_variant_new("(s)", "com.vesk.Events1.Other")),
              "(false,)");
}

TEST_F(EventService, OpensAgainUnderTheSameName)
{
    event_service_close(producer);
    producer = event_service_open("SonoBrikEvents");
    EXPECT_EQ(declare_playing(), 1U);
    EXPECT_EQ(get("StateKey"), "'Playing'");
}

TEST_F(EventService, DoesNotOpenTwiceUnderOneName)
{
    EXPECT_EQ(event_service_open("SonoBrikEvents"), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "Events cannot be sent: com.vesk.Events1.SonoBrikEvents cannot "
                                    "be served on the system bus: Operation already in progress");
    declare_playing();
    EXPECT_EQ(get("StateKey"), "'Playing'") << "the first producer no longer works";
}

TEST_F(EventService, DoesNotOpenUnderAnotherProcessesName)
{
    bus_call(stranger, "org.freedesktop.DBus", "/", "org.freedesktop.DBus", "RequestName",
             g_variant_new("(su)", "com.vesk.Events1.Taken", 0U));
    EXPECT_EQ(event_service_open("Taken"), nullptr);
    expect_log(G_LOG_LEVEL_WARNING,
               "Events cannot be sent: com.vesk.Events1.Taken cannot be served "
               "on the system bus: File exists");
}

class EventServiceName : public LogTest, public testing::WithParamInterface<const char *>
{
};

TEST_P(EventServiceName, IsRefused)
{
    EXPECT_EQ(event_service_open(GetParam()), nullptr);
    expect_log(G_LOG_LEVEL_WARNING,
               std::string("'") + GetParam() + "' is not a valid name for an event producer");
}

INSTANTIATE_TEST_SUITE_P(Bad, EventServiceName,
                         testing::Values("", "a.b", "a-b", "a/b", "1a", "a b", "\u00e5", "a\n"));

TEST_F(EventServiceAlone, ProducerWithoutANameIsRefused)
{
    EXPECT_EQ(event_service_open(nullptr), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "An event producer needs a name");
}

TEST_F(EventServiceAlone, ProducerNameBeyondTheBusLimitIsRefused)
{
    const std::string name(300, 'a');
    EXPECT_EQ(event_service_open(name.c_str()), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "'" + name + "' is not a valid name for an event producer");
}

TEST_F(EventService, DoesNotOpenWithoutABus)
{
    event_service_close(g_steal_pointer(&producer));
    bus.stop();
    EXPECT_EQ(event_service_open("SonoBrikEvents"), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "Events cannot be sent: The system bus cannot be reached: No "
                                    "such file or directory");
}

TEST_F(EventServiceAlone, ClosesNothingForNull)
{
    event_service_close(nullptr);
}

TEST_F(EventService, AnswersNullArgumentsWithTheFailureValue)
{
    EventTemplate *made = make_template("Playing", "Playing", EVENT_VALUE_BOOL);
    EXPECT_EQ(event_service_declare(nullptr, made), 0U);
    EXPECT_EQ(event_service_declare(producer, nullptr), 0U);
    event_template_free(made);
    const unsigned int id = declare_playing();
    EXPECT_EQ(event_service_prepare(nullptr, id), nullptr);
    EXPECT_EQ(event_service_prepare_async(nullptr, id), nullptr);
    Event *event = event_service_prepare(producer, id);
    const gboolean playing = TRUE;
    EXPECT_FALSE(event_value_set(nullptr, "Playing", &playing));
    EXPECT_FALSE(event_value_set(event, nullptr, &playing));
    EXPECT_FALSE(event_value_set(event, "Playing", nullptr));
    EXPECT_FALSE(event_value_set(event, "playing", &playing));
    event_service_send_async(nullptr, event, Told::sent, &told);
    event_service_send_async(producer, nullptr, Told::sent, &told);
    event_release(event);
    settle();
    EXPECT_TRUE(told.lines.empty());
}

/* Declaring. */

TEST_F(EventService, CountsIdsFromOneForEachProducer)
{
    EXPECT_EQ(declare_playing(), 1U);
    EXPECT_EQ(declare_currently_playing(), 2U);
    event_service_close(producer);
    producer = event_service_open("Second");
    told.lines.clear();
    EXPECT_EQ(declare_playing(), 1U);
}

TEST_F(EventService, SendsNothingWhenDeclaring)
{
    const SignalLog heard(stranger, SERVICE);
    declare_playing();
    declare_currently_playing();
    settle();
    EXPECT_EQ(heard.lines, std::vector<std::string>{});
}

TEST_F(EventService, LeavesTheTemplateToItsOwner)
{
    EventTemplate *made = make_template("Playing", "Playing", EVENT_VALUE_BOOL);
    event_service_declare(producer, made);
    event_template_set_namespace(made, "topic0", "changed");
    event_template_free(made);
    EXPECT_EQ(get("Topics"), "[('tnsvesk', 'SonoBrik'), ('tnsvesk', 'Playing')]");
}

TEST_F(EventService, StartsWithWhatTheInitialiserSets)
{
    EventTemplate *made = make_template("Playing", "Playing", EVENT_VALUE_BOOL);
    const auto set = [](Event *event, void *user_data) {
        return event_value_set(event, "Playing", user_data);
    };
    gboolean playing = TRUE;
    event_template_set_state_key(made, "Playing", set, &playing);
    event_service_declare(producer, made);
    event_template_free(made);
    EXPECT_NE(get("Keys").find("'Playing': <true>"), std::string::npos);
}

TEST_F(EventService, DoesNotDeclareWhenTheInitialiserFails)
{
    EventTemplate *made = make_template("Playing", "Playing", EVENT_VALUE_BOOL);
    event_template_set_state_key(
        made, "Playing", [](Event *, void *) { return false; }, nullptr);
    EXPECT_EQ(event_service_declare_notify(producer, made, Told::declared, &told), 0U);
    event_template_free(made);
    expect_log(G_LOG_LEVEL_WARNING,
               "An event cannot be declared: its initialiser did not set the state 'Playing'");
    settle();
    EXPECT_TRUE(told.lines.empty());
    EXPECT_EQ(declare_playing(), 1U) << "the failed declaration used up an id";
}

/* The bus would read the properties of a freed object otherwise. */
TEST_F(EventService, WithdrawsAnEventThatCannotBePublishedAsAWhole)
{
    static const sd_bus_vtable same_property[] = {
        SD_BUS_VTABLE_START(0),
        SD_BUS_PROPERTY("LastSent", "t", nullptr, 0, 0),
        SD_BUS_VTABLE_END,
    };
    sd_bus *shared = nullptr;
    ASSERT_TRUE(platform_bus_hold(&shared, nullptr));
    sd_bus_slot *obstacle = nullptr;
    ASSERT_GE(sd_bus_add_object_vtable(shared, &obstacle, OBJECT, "com.vesk.Events1.Time",
                                       same_property, nullptr),
              0);
    EXPECT_EQ(declare_playing(), 0U);
    expect_log(G_LOG_LEVEL_WARNING,
               std::string("An event cannot be declared at ") + OBJECT + ": File exists");
    sd_bus_slot_unref(obstacle);
    platform_bus_release(shared);
    EXPECT_EQ(declare_playing(), 1U);
    expect_no_log();
}

TEST_F(EventService, AcknowledgesADeclarationFromTheLoopsFirstTurn)
{
    declare_currently_playing();
    EXPECT_TRUE(told.lines.empty());
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(told.lines, std::vector<std::string>{"declared 1"});
    settle();
    EXPECT_EQ(told.lines.size(), 1U);
}

TEST_F(EventService, AcknowledgesBeforeAnIdleSourceRuns)
{
    bool was_first = false;
    g_idle_add(
        [](gpointer data) -> gboolean {
            *static_cast<bool *>(data) = true;
            return G_SOURCE_REMOVE;
        },
        &was_first);
    declare_currently_playing();
    while (told.lines.empty()) {
        g_main_context_iteration(nullptr, TRUE);
    }
    EXPECT_FALSE(was_first);
    EXPECT_TRUE(run_until([&] { return was_first; }));
}

TEST_F(EventService, DropsAnAcknowledgementWhenClosed)
{
    declare_currently_playing();
    event_service_close(g_steal_pointer(&producer));
    run_until([] { return !g_main_context_pending(nullptr); });
    EXPECT_TRUE(told.lines.empty());
}

/* Sending. */

TEST_F(EventService, SendsEveryKeyWithItsValue)
{
    const unsigned int id = declare_playing();
    const SignalLog heard(stranger, SERVICE);
    send_playing(id, true);
    EXPECT_TRUE(run_until([&] { return !heard.lines.empty(); }));
    EXPECT_EQ(heard.lines,
              std::vector<std::string>{
                  "/com/vesk/Events1/SonoBrikEvents/1 com.vesk.Events1.Event.Sent ({'topic0': "
                  "<'SonoBrik'>, 'topic1': <'Playing'>, 'AudioOutput': <1>, 'AudioDeviceId': <7>, "
                  "'Playing': <true>},)"});
}

TEST_F(EventService, SendsInOrderAcrossEvents)
{
    const unsigned int playing = declare_playing();
    const unsigned int file = declare_currently_playing();
    const SignalLog heard(stranger, SERVICE);
    std::vector<std::string> expected;
    for (int i = 0; i < 50; i++) {
        send_playing(playing, i % 2 == 0);
        send_file_name(file, std::to_string(i).c_str());
        expected.emplace_back(i % 2 == 0 ? "<true>" : "<false>");
        expected.push_back("<'" + std::to_string(i) + "'>");
    }
    EXPECT_TRUE(run_until([&] { return heard.lines.size() == expected.size(); }));
    for (size_t i = 0; i < expected.size(); i++) {
        EXPECT_NE(heard.lines[i].find(expected[i]), std::string::npos) << heard.lines[i];
    }
}

TEST_F(EventService, SendsBeforeTheLoopTurnsAgain)
{
    const unsigned int id = declare_playing();
    const SignalLog subscription(stranger, SERVICE);
    settle();
    /* Runs in the stranger's thread, like a signal that another process receives. */
    std::atomic<bool> arrived = false;
    const guint filter = g_dbus_connection_add_filter(
        stranger,
        [](GDBusConnection *, GDBusMessage *message, gboolean, gpointer data) {
            if (g_strcmp0(g_dbus_message_get_member(message), "Sent") == 0) {
                *static_cast<std::atomic<bool> *>(data) = true;
            }
            return message;
        },
        &arrived, nullptr);
    send_playing(id, true);
    const gint64 deadline = g_get_monotonic_time() + 10 * G_USEC_PER_SEC;
    while (!arrived && g_get_monotonic_time() < deadline) {
        g_usleep(1000);
    }
    EXPECT_TRUE(arrived);
    EXPECT_TRUE(told.lines.empty()) << "the callback did not wait for the loop";
    g_dbus_connection_remove_filter(stranger, filter);
}

TEST_F(EventService, KeepsTheStateThatWasSentLast)
{
    const unsigned int id = declare_playing();
    send_playing(id, true);
    EXPECT_NE(get("Keys").find("'Playing': <true>"), std::string::npos);
    send_playing(id, false);
    EXPECT_NE(get("Keys").find("'Playing': <false>"), std::string::npos);
}

TEST_F(EventService, KeepsWhatAPlainEventSentLast)
{
    const unsigned int id = declare_currently_playing();
    send_file_name(id, "/etc/audioclips/chime.wav");
    EXPECT_NE(get("Keys").find("'FileName': <'/etc/audioclips/chime.wav'>"), std::string::npos);
}

TEST_F(EventService, ChangesNothingUntilItIsSent)
{
    const unsigned int id = declare_playing();
    Event *event = event_service_prepare(producer, id);
    set_playing(event, TRUE);
    event_release(event);
    EXPECT_NE(get("Keys").find("'Playing': <false>"), std::string::npos);
}

TEST_F(EventService, PreparesWithThePresentValues)
{
    const unsigned int id = declare_playing();
    const int output = 5;
    Event *event = event_service_prepare(producer, id);
    EXPECT_TRUE(event_value_set(event, "AudioOutput", &output));
    event_service_send_async(producer, event, nullptr, nullptr);
    event_release(event);
    send_playing(id, true);
    EXPECT_NE(get("Keys").find("'AudioOutput': <5>"), std::string::npos);
}

TEST_F(EventService, PreparesNothingForAnUnknownId)
{
    declare_playing();
    EXPECT_EQ(event_service_prepare(producer, 0), nullptr);
    EXPECT_EQ(event_service_prepare(producer, 2), nullptr);
    EXPECT_EQ(event_service_prepare_async(producer, 2), nullptr);
}

TEST_F(EventService, TakesEveryTrueBooleanForTrue)
{
    const unsigned int id = declare_playing();
    const gboolean two = 2;
    Event *event = event_service_prepare(producer, id);
    event_value_set(event, "Playing", &two);
    event_service_send_async(producer, event, nullptr, nullptr);
    event_release(event);
    EXPECT_NE(get("Keys").find("'Playing': <true>"), std::string::npos);
}

TEST_F(EventService, MakesTextValidThatIsNot)
{
    const unsigned int id = declare_currently_playing();
    const SignalLog heard(stranger, SERVICE);
    send_file_name(id, "/etc/audioclips/caf\xe9\xef\xbf\xbe.wav");
    EXPECT_TRUE(run_until([&] { return !heard.lines.empty(); }));
    ASSERT_EQ(heard.lines.size(), 1U);
    EXPECT_NE(heard.lines[0].find("'FileName': <'/etc/audioclips/caf\ufffd\ufffd.wav'>"),
              std::string::npos)
        << heard.lines[0];
    EXPECT_EQ(told.lines, (std::vector<std::string>{"declared 1", "sent 1"}));
}

TEST_F(EventService, TellsOfASentEventFromTheLoop)
{
    const unsigned int id = declare_playing();
    send_playing(id, true);
    EXPECT_TRUE(told.lines.empty());
    g_main_context_iteration(nullptr, FALSE);
    EXPECT_EQ(told.lines, std::vector<std::string>{"sent 1"});
    settle();
    EXPECT_EQ(told.lines.size(), 1U);
}

TEST_F(EventService, TellsInTheOrderOfTheCalls)
{
    const unsigned int playing = declare_playing();
    const unsigned int file = declare_currently_playing();
    send_file_name(file, "a");
    send_playing(playing, true);
    settle();
    EXPECT_EQ(told.lines, (std::vector<std::string>{"declared 2", "sent 2", "sent 1"}));
}

TEST_F(EventService, DropsOutcomesWhenClosed)
{
    send_playing(declare_playing(), true);
    event_service_close(g_steal_pointer(&producer));
    run_until([] { return !g_main_context_pending(nullptr); });
    EXPECT_TRUE(told.lines.empty());
}

TEST_F(EventService, CanBeClosedByACallback)
{
    const unsigned int id = declare_playing();
    send_playing(id, true);
    send_playing(id, false);
    told.to_close = g_steal_pointer(&producer);
    run_until([] { return !g_main_context_pending(nullptr); });
    EXPECT_EQ(told.lines, std::vector<std::string>{"sent 1"});
}

TEST_F(EventService, SendsNoEventOfAnotherProducer)
{
    const unsigned int id = declare_playing();
    EventProducer *other = event_service_open("Other");
    EventTemplate *made = event_template_new();
    event_service_declare(other, made);
    event_template_free(made);
    Event *event = event_service_prepare(producer, id);
    event_service_send_async(other, event, Told::sent, &told);
    settle();
    EXPECT_EQ(told.lines, std::vector<std::string>{
                              "sent 1: the event does not belong to com.vesk.Events1.Other"});
    event_release(event);
    event_service_close(other);
}

TEST_F(EventService, LetsAnEventOutliveItsProducer)
{
    Event *event = event_service_prepare(producer, declare_playing());
    event_service_close(g_steal_pointer(&producer));
    EXPECT_TRUE(set_playing(event, TRUE));
    event_release(event);
}

/* Losing the bus and reconnecting. */

TEST_F(EventService, TellsWhyAnEventWasNotSent)
{
    const unsigned int id = declare_playing();
    bus.stop();
    EXPECT_TRUE(run_until([] { return !g_main_context_pending(nullptr); }));
    expect_log(G_LOG_LEVEL_WARNING, LOST_LINE);
    send_playing(id, true);
    EXPECT_TRUE(run_until([&] { return !told.lines.empty(); }));
    EXPECT_EQ(told.lines, std::vector<std::string>{"sent 1: The system bus cannot be reached: No "
                                                   "such file or directory"});
}

TEST_F(EventService, LogsThatADeclarationFindsNoBus)
{
    bus.stop();
    EXPECT_TRUE(run_until([] { return !g_main_context_pending(nullptr); }));
    expect_log(G_LOG_LEVEL_WARNING, LOST_LINE);
    EXPECT_EQ(declare_playing(), 0U);
    expect_log(G_LOG_LEVEL_WARNING,
               "An event cannot be declared: The system bus cannot be reached: "
               "No such file or directory");
}

TEST_F(EventService, ComesBackWithItsEventsWhenTheBusDoes)
{
    const unsigned int playing = declare_playing();
    const unsigned int file = declare_currently_playing();
    send_playing(playing, true);
    settle();
    bus.stop();
    EXPECT_TRUE(run_until([] { return !g_main_context_pending(nullptr); }));
    expect_log(G_LOG_LEVEL_WARNING, LOST_LINE);
    bus.start();
    send_file_name(file, "a");
    GDBusConnection *late = bus.connect();
    EXPECT_NE(bus_get(late, SERVICE, OBJECT, INTERFACE, "Keys").find("'Playing': <true>"),
              std::string::npos);
    EXPECT_EQ(told.lines, (std::vector<std::string>{"declared 2", "sent 1", "sent 2"}));
    g_object_unref(late);
}

TEST_F(EventService, SendsLaterWhatTheBusDoesNotReadAtOnce)
{
    const unsigned int id = declare_currently_playing();
    const SignalLog heard(stranger, SERVICE);
    const std::string ballast(10000, 'x');
    bus.freeze();
    constexpr size_t COUNT = 200; /* more than fit into the socket's buffer */
    for (size_t i = 0; i < COUNT; i++) {
        send_file_name(id, (ballast + std::to_string(i) + "!").c_str());
    }
    bus.thaw();
    EXPECT_TRUE(run_until([&] { return heard.lines.size() == COUNT; }));
    for (size_t i = 0; i < heard.lines.size(); i++) {
        ASSERT_NE(heard.lines[i].find("x" + std::to_string(i) + "!"), std::string::npos);
    }
}

} // namespace
