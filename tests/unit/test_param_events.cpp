#include "sonobrik_param_events.h"

#include <string>
#include <vector>

#include "log_test.h"
#include "platform/change_notifier.h"

namespace
{

using Calls = std::vector<std::string>;

constexpr const char *TARGET =
    "com.vesk.Sonobrik.Legacy /com/vesk/Sonobrik com.vesk.Configuration.Legacy";

/* The calls and the results of the fake change notifier. */
Calls calls;
bool new_fails;
bool declare_fails;
bool send_fails;

int object; /* its address is the notifier */
int producer_object;

ChangeNotifier *const notifier = reinterpret_cast<ChangeNotifier *>(&object);
EventProducer *const producer = reinterpret_cast<EventProducer *>(&producer_object);

bool sets_no_error;

bool result(bool fails, GError **error)
{
    if (fails && !sets_no_error) {
        g_set_error_literal(error, g_quark_from_static_string("test"), 1, "The bus is away");
    }
    return !fails;
}

class ParamEvents : public LogTest
{
  protected:
    ParamEvents()
    {
        calls.clear();
        new_fails = declare_fails = send_fails = sets_no_error = false;
    }

    ~ParamEvents() override
    {
        sonobrik_param_events_teardown();
    }

    static void set_up()
    {
        ASSERT_TRUE(sonobrik_param_events_setup(producer));
        calls.clear();
    }
};

} // namespace

ChangeNotifier *change_notifier_new(const char *source_name, EventProducer *events, GError **error)
{
    EXPECT_EQ(events, producer);
    calls.push_back(std::string("new ") + source_name);
    return result(new_fails, error) ? notifier : nullptr;
}

void change_notifier_free(ChangeNotifier *freed)
{
    EXPECT_EQ(freed, notifier);
    calls.emplace_back("free");
}

bool change_notifier_declare(ChangeNotifier *used, const char *service, const char *object_path,
                             const char *interface, GError **error)
{
    EXPECT_EQ(used, notifier);
    calls.push_back(std::string("declare ") + service + " " + object_path + " " + interface);
    return result(declare_fails, error);
}

void change_notifier_begin_change(ChangeNotifier *used)
{
    EXPECT_EQ(used, notifier);
    calls.emplace_back("begin");
}

void change_notifier_append_pair(ChangeNotifier *used, const char *key, const char *value)
{
    EXPECT_EQ(used, notifier);
    calls.push_back(std::string("append ") + key + "=" + value);
}

bool change_notifier_send(ChangeNotifier *used, const char *service, const char *object_path,
                          const char *interface, const char *entry_path, bool is_change,
                          GError **error)
{
    EXPECT_EQ(used, notifier);
    calls.push_back(std::string("send ") + service + " " + object_path + " " + interface + " " +
                    entry_path + (is_change ? " changed" : " added"));
    return result(send_fails, error);
}

TEST_F(ParamEvents, SetupDeclaresTheLegacyInterface)
{
    EXPECT_TRUE(sonobrik_param_events_setup(producer));
    EXPECT_EQ(calls, (Calls{"new SonoBrik", std::string("declare ") + TARGET}));
    expect_no_log();
}

TEST_F(ParamEvents, SetupFailsWithoutANotifier)
{
    new_fails = true;
    EXPECT_FALSE(sonobrik_param_events_setup(producer));
    EXPECT_EQ(calls, Calls{"new SonoBrik"});
    expect_log(G_LOG_LEVEL_WARNING, "Unable to create param event object");
    expect_no_log();
}

/* Only the error decides, because the operations' results are not read. */
TEST_F(ParamEvents, SurvivesAPlatformThatFailsWithoutSettingItsError)
{
    declare_fails = send_fails = sets_no_error = true;
    EXPECT_TRUE(sonobrik_param_events_setup(producer));
    EXPECT_TRUE(sonobrik_param_events_register_new(3, "/a", "A", "audio"));
    sonobrik_param_events_teardown();
    new_fails = true;
    EXPECT_FALSE(sonobrik_param_events_setup(producer));
    expect_log(G_LOG_LEVEL_WARNING, "Unable to create param event object");
    expect_no_log();
}

TEST_F(ParamEvents, FailedDeclarationFailsTheSetupAndKeepsTheNotifier)
{
    declare_fails = true;
    EXPECT_FALSE(sonobrik_param_events_setup(producer));
    expect_log(G_LOG_LEVEL_WARNING, "Unable to declare param event bus: The bus is away");
    calls.clear();
    EXPECT_TRUE(sonobrik_param_events_register_new(3, "/a", "A", "audio"));
    EXPECT_EQ(calls.size(), 5U);
    sonobrik_param_events_teardown();
    EXPECT_EQ(calls.back(), "free");
    expect_no_log();
}

TEST_F(ParamEvents, NewClipIsAnnounced)
{
    set_up();
    EXPECT_TRUE(sonobrik_param_events_register_new(3, "/etc/audioclips/a.wav", "Door", "audio"));
    EXPECT_EQ(calls, (Calls{"begin", "append Location=/etc/audioclips/a.wav", "append Name=Door",
                            "append Type=audio",
                            std::string("send ") + TARGET + " /com/vesk/Sonobrik/3 added"}));
    expect_no_log();
}

TEST_F(ParamEvents, EmptyTextsAreAnnounced)
{
    set_up();
    EXPECT_TRUE(sonobrik_param_events_register_new(0, "", "", ""));
    EXPECT_EQ(calls, (Calls{"begin", "append Location=", "append Name=", "append Type=",
                            std::string("send ") + TARGET + " /com/vesk/Sonobrik/0 added"}));
}

TEST_F(ParamEvents, NewClipWithoutATextIsNotAnnounced)
{
    set_up();
    EXPECT_FALSE(sonobrik_param_events_register_new(3, nullptr, "Door", "audio"));
    EXPECT_FALSE(sonobrik_param_events_register_new(3, "/a", nullptr, "audio"));
    EXPECT_FALSE(sonobrik_param_events_register_new(3, "/a", "Door", nullptr));
    EXPECT_EQ(calls, Calls{});
    expect_no_log();
}

TEST_F(ParamEvents, ChangedClipIsAnnouncedWithTheTextsThatChanged)
{
    set_up();
    EXPECT_TRUE(sonobrik_param_events_register_change(12, nullptr, "Door", nullptr));
    EXPECT_EQ(calls, (Calls{"begin", "append Name=Door",
                            std::string("send ") + TARGET + " /com/vesk/Sonobrik/12 changed"}));
    calls.clear();
    EXPECT_TRUE(sonobrik_param_events_register_change(12, "/a", nullptr, nullptr));
    EXPECT_TRUE(sonobrik_param_events_register_change(12, nullptr, nullptr, "audio"));
    EXPECT_EQ(calls, (Calls{"begin", "append Location=/a",
                            std::string("send ") + TARGET + " /com/vesk/Sonobrik/12 changed",
                            "begin", "append Type=audio",
                            std::string("send ") + TARGET + " /com/vesk/Sonobrik/12 changed"}));
    expect_no_log();
}

TEST_F(ParamEvents, ChangeOfNothingIsNotAnnounced)
{
    set_up();
    EXPECT_FALSE(sonobrik_param_events_register_change(12, nullptr, nullptr, nullptr));
    EXPECT_EQ(calls, Calls{});
    expect_no_log();
}

TEST_F(ParamEvents, NothingIsAnnouncedBeforeTheSetup)
{
    EXPECT_FALSE(sonobrik_param_events_send(true, 3, "/a", "A", "audio"));
    expect_log(G_LOG_LEVEL_WARNING, "Warning configuration event was not initiated");
    EXPECT_FALSE(sonobrik_param_events_register_new(3, "/a", "A", "audio"));
    expect_log(G_LOG_LEVEL_WARNING, "Warning configuration event was not initiated");
    expect_no_log();
    EXPECT_EQ(calls, Calls{});
}

TEST_F(ParamEvents, FailureToSendIsLoggedWithTheChange)
{
    set_up();
    send_fails = true;
    EXPECT_FALSE(sonobrik_param_events_register_new(3, "/a", "A", "audio"));
    expect_log(G_LOG_LEVEL_WARNING,
               "Unable to add clip entry with number 3 to param cache: The bus is away");
    EXPECT_FALSE(sonobrik_param_events_register_change(4, "/a", "A", "audio"));
    expect_log(G_LOG_LEVEL_WARNING,
               "Unable to change clip entry with number 4 to param cache: The bus is away");
    expect_no_log();
}

TEST_F(ParamEvents, AnnouncesAgainAfterAFailure)
{
    set_up();
    send_fails = true;
    EXPECT_FALSE(sonobrik_param_events_register_new(3, "/a", "A", "audio"));
    send_fails = false;
    EXPECT_TRUE(sonobrik_param_events_register_new(3, "/a", "A", "audio"));
    clear_log();
}

TEST_F(ParamEvents, TeardownReleasesTheNotifierOnce)
{
    set_up();
    sonobrik_param_events_teardown();
    sonobrik_param_events_teardown();
    EXPECT_EQ(calls, Calls{"free"});
    EXPECT_FALSE(sonobrik_param_events_register_new(3, "/a", "A", "audio"));
    expect_log(G_LOG_LEVEL_WARNING, "Warning configuration event was not initiated");
}

TEST_F(ParamEvents, TeardownWithoutASetupDoesNothing)
{
    sonobrik_param_events_teardown();
    EXPECT_EQ(calls, Calls{});
    expect_no_log();
}
