/* Reads events as a stranger on the bus does. */

#include "event_object.h"

#include "event_test.h"

namespace
{

constexpr const char *MANAGER = "/com/vesk/Events1/SonoBrikEvents";

class EventObjectOnBus : public EventService
{
  protected:
    std::string properties_call(const char *method, GVariant *arguments)
    {
        return bus_call(stranger, SERVICE, OBJECT, "org.freedesktop.DBus.Properties", method,
                        arguments);
    }

    std::string introspection(const char *object)
    {
        return bus_call(stranger, SERVICE, object, "org.freedesktop.DBus.Introspectable",
                        "Introspect");
    }
};

TEST_F(EventObjectOnBus, ShowsTopicsInOrder)
{
    declare_playing();
    EXPECT_EQ(get("Topics"), "[('tnsvesk', 'SonoBrik'), ('tnsvesk', 'Playing')]");
}

TEST_F(EventObjectOnBus, ShowsTopicsByTheirNumberAndNotByTheirPlace)
{
    EventTemplate *made = event_template_new();
    event_template_add_key_value(made, "topic1", "b", EVENT_VALUE_STRING);
    event_template_add_key_value(made, "topic0", "a", EVENT_VALUE_STRING);
    event_service_declare(producer, made);
    event_template_free(made);
    EXPECT_EQ(get("Topics"), "[('', 'a'), ('', 'b')]");
}

TEST_F(EventObjectOnBus, ShowsAllKeysWithTheirValues)
{
    declare_playing();
    EXPECT_EQ(get("Keys"), "{'topic0': <'SonoBrik'>, 'topic1': <'Playing'>, 'AudioOutput': <1>, "
                           "'AudioDeviceId': <7>, 'Playing': <false>}");
}

TEST_F(EventObjectOnBus, ShowsTheEmptyValueOfKeysThatHaveNone)
{
    EventTemplate *made = event_template_new();
    event_template_add_key(made, "Number", EVENT_VALUE_INT);
    event_template_add_key(made, "Truth", EVENT_VALUE_BOOL);
    event_template_add_key(made, "Text", EVENT_VALUE_STRING);
    event_service_declare(producer, made);
    event_template_free(made);
    EXPECT_EQ(get("Keys"), "{'Number': <0>, 'Truth': <false>, 'Text': <''>}");
}

TEST_F(EventObjectOnBus, ShowsTags)
{
    declare_playing();
    EXPECT_EQ(get("Tags"), "{'AudioOutput': 'onvif-source', 'Playing': 'onvif-data'}");
}

TEST_F(EventObjectOnBus, ShowsNiceNamesOfKeysThatHaveOne)
{
    declare_playing();
    EXPECT_EQ(get("NiceNames"), "{'topic0': ('', 'Sono Brik'), 'topic1': ('', 'Playing'), "
                                "'AudioOutput': ('Audio Output', '')}");
}

TEST_F(EventObjectOnBus, ShowsTheStateKey)
{
    declare_playing();
    EXPECT_EQ(get("StateKey"), "'Playing'");
}

TEST_F(EventObjectOnBus, ShowsNoStateKeyForAPlainEvent)
{
    declare_currently_playing();
    EXPECT_EQ(get("StateKey"), "''");
}

TEST_F(EventObjectOnBus, ShowsWhenItWasSentLast)
{
    const auto get_time = [this] {
        return properties_call("Get", g_variant_new("(ss)", "com.vesk.Events1.Time", "LastSent"));
    };
    const unsigned int id = declare_playing();
    EXPECT_EQ(get_time(), "(<uint64 0>,)");
    const gint64 before = g_get_monotonic_time();
    send_playing(id, true);
    const std::string text = get_time();
    gint64 sent = 0;
    ASSERT_EQ(sscanf(text.c_str(), "(<uint64 %" G_GINT64_FORMAT, &sent), 1) << text;
    EXPECT_GE(sent, before);
    EXPECT_LE(sent, g_get_monotonic_time());
}

TEST_F(EventObjectOnBus, ShowsTheTimeOnItsClock)
{
    declare_playing();
    const gint64 before = g_get_monotonic_time();
    const std::string text =
        properties_call("Get", g_variant_new("(ss)", "com.vesk.Events1.Time", "Now"));
    gint64 now = 0;
    ASSERT_EQ(sscanf(text.c_str(), "(<uint64 %" G_GINT64_FORMAT, &now), 1) << text;
    EXPECT_GE(now, before);
    EXPECT_LE(now, g_get_monotonic_time());
}

TEST_F(EventObjectOnBus, ShowsAnEventWithoutKeys)
{
    EventTemplate *made = event_template_new();
    event_service_declare(producer, made);
    event_template_free(made);
    EXPECT_EQ(properties_call("GetAll", g_variant_new("(s)", INTERFACE)),
              "({'Topics': <@a(ss) []>, 'Keys': <@a{sv} {}>, 'Tags': <@a{ss} {}>, 'NiceNames': "
              "<@a{s(ss)} {}>, 'StateKey': <''>},)");
}

TEST_F(EventObjectOnBus, LetsNobodyWriteAProperty)
{
    declare_playing();
    EXPECT_EQ(properties_call(
                  "Set", g_variant_new("(ssv)", INTERFACE, "StateKey", g_variant_new_string("x"))),
              "org.freedesktop.DBus.Error.PropertyReadOnly: Property 'StateKey' is not writable.");
}

TEST_F(EventObjectOnBus, ListsItsEventsThroughTheObjectManager)
{
    declare_playing();
    declare_currently_playing();
    const std::string reply = bus_call(stranger, SERVICE, MANAGER,
                                       "org.freedesktop.DBus.ObjectManager", "GetManagedObjects");
    EXPECT_NE(reply.find("'/com/vesk/Events1/SonoBrikEvents/1': {"), std::string::npos) << reply;
    EXPECT_NE(reply.find("'/com/vesk/Events1/SonoBrikEvents/2': {"), std::string::npos) << reply;
    EXPECT_NE(reply.find("'Playing': <false>"), std::string::npos) << reply;
    EXPECT_NE(reply.find("'FileName': <''>"), std::string::npos) << reply;
}

TEST_F(EventObjectOnBus, IntrospectsEventsAndTheManager)
{
    declare_playing();
    const std::string manager = introspection(MANAGER);
    EXPECT_NE(manager.find("<node name=\"1\"/>"), std::string::npos) << manager;
    EXPECT_NE(manager.find("org.freedesktop.DBus.ObjectManager"), std::string::npos) << manager;
    g_autofree char *object = g_strcompress(introspection(OBJECT).c_str());
    const std::string text = object;
    const auto has = [&text](const char *part) {
        return text.find(part) != std::string::npos;
    };
    constexpr const char *CONSTANT =
        "<annotation name=\"org.freedesktop.DBus.Property.EmitsChangedSignal\" value=\"const\"/>";
    constexpr const char *SILENT =
        "<annotation name=\"org.freedesktop.DBus.Property.EmitsChangedSignal\" value=\"false\"/>";
    const auto property = [](const char *name, const char *type, const char *annotation) {
        return std::string("<property name=\"") + name + "\" type=\"" + type +
               "\" access=\"read\">\n   " + annotation;
    };
    EXPECT_TRUE(has(property("Topics", "a(ss)", CONSTANT).c_str())) << text;
    EXPECT_TRUE(has(property("Keys", "a{sv}", SILENT).c_str())) << text;
    EXPECT_TRUE(has(property("Tags", "a{ss}", CONSTANT).c_str())) << text;
    EXPECT_TRUE(has(property("NiceNames", "a{s(ss)}", CONSTANT).c_str())) << text;
    EXPECT_TRUE(has(property("StateKey", "s", CONSTANT).c_str())) << text;
    EXPECT_TRUE(has("<signal name=\"Sent\">\n   <arg type=\"a{sv}\" name=\"keys\"/>")) << text;
}

TEST_F(EventObjectOnBus, MakesDescriptionsValidThatAreNot)
{
    EventTemplate *made = event_template_new();
    event_template_add_key_value(made, "topic0", "\xe9", EVENT_VALUE_STRING);
    event_template_set_namespace(made, "topic0", "n\xe9");
    event_template_set_nice_names(made, "topic0", "k\xe9", "v\xe9");
    event_template_add_tag(made, "topic0", "t\xe9");
    event_service_declare(producer, made);
    event_template_free(made);
    EXPECT_EQ(properties_call("GetAll", g_variant_new("(s)", INTERFACE)),
              "({'Topics': <[('n\ufffd', '\ufffd')]>, 'Keys': <{'topic0': <'\ufffd'>}>, 'Tags': "
              "<{'topic0': 't\ufffd'}>, 'NiceNames': <{'topic0': ('k\ufffd', 'v\ufffd')}>, "
              "'StateKey': <''>},)");
}

} // namespace
