#include "group_dbus.h"

#include <string>
#include <vector>

#include "bus_server.h"
#include "failing_calls.h"
#include "private_bus.h"
#include "sonobrik_group.h"
#include "sonobrik_osc.h"

namespace
{

constexpr const char *SERVICE = "com.vesk.Sonobrik.Legacy";
constexpr const char *OBJECT = "/com/vesk/Sonobrik";
constexpr const char *INTERFACE = "com.vesk.Configuration.Legacy";

std::vector<std::string> handled; /* the calls of the fake store */
std::vector<gint32> listed;       /* the numbers of its records */

class GroupDbus : public BusTest
{
  protected:
    GroupDbus()
    {
        handled.clear();
        listed = {7};
    }

    ~GroupDbus() override
    {
        sonobrik_group_dbus_teardown();
    }

    std::string call(const std::string &method, GVariant *arguments = nullptr,
                     const std::string &object = OBJECT, const std::string &interface = INTERFACE)
    {
        return bus_call(stranger, SERVICE, object, interface, method, arguments);
    }

    bool has_owner()
    {
        return bus_call(stranger, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                        "org.freedesktop.DBus", "NameHasOwner",
                        g_variant_new("(s)", SERVICE)) == "(true,)";
    }

    /* Waits: the bus notices a closed connection a little later. */
    bool loses_owner()
    {
        return run_until([this] { return !has_owner(); });
    }
};

} // namespace

/* A fake store, by default with one record, number 7. All are named "Door". */

bool sonobrik_group_create_group(gint32 *index, const char *, const char *, const char *)
{
    handled.emplace_back("create");
    *index = 7;
    return true;
}

bool sonobrik_group_remove_group(gint32)
{
    handled.emplace_back("remove");
    return true;
}

SonobrikGroup *sonobrik_group_from_index(gint32 index)
{
    handled.emplace_back("load");
    auto *group = g_new0(SonobrikGroup, 1);
    group->index = index;
    sonobrik_group_set_location(group, "/door.wav");
    sonobrik_group_set_name(group, "Door");
    sonobrik_group_set_type(group, "audio");
    return group;
}

GSList *sonobrik_group_get_parameter_list()
{
    GSList *groups = nullptr;
    for (const gint32 index : listed) {
        groups = g_slist_append(groups, sonobrik_group_from_index(index));
    }
    return groups;
}

void sonobrik_group_release_parameter_list(GSList **list)
{
    g_slist_free_full(g_steal_pointer(list), [](gpointer group) {
        sonobrik_group_free(static_cast<SonobrikGroup *>(group));
    });
}

bool sonobrik_group_save(SonobrikGroup *group)
{
    handled.push_back(std::string("save ") + group->name);
    return true;
}

bool sonobrik_osc_update()
{
    handled.emplace_back("update controls");
    return true;
}

TEST_F(GroupDbus, EachMethodHasItsHandler)
{
    ASSERT_TRUE(sonobrik_group_dbus_setup());
    EXPECT_EQ(call("AddConfiguration", g_variant_new("(i)", -1)), "(7,)");
    EXPECT_EQ(call("RemoveConfiguration", g_variant_new("(i)", 3)), "()");
    EXPECT_EQ(call("GetConfigurationEntry", g_variant_new("(is)", 3, "Name")),
              "('Name', <'Door'>)");
    EXPECT_EQ(call("SetConfigurationEntry",
                   g_variant_new("(isv)", 3, "Name", g_variant_new_bytestring("Bell"))),
              "()");
    EXPECT_EQ(call("GetConfigurations"),
              "({7: {'Location': <'/door.wav'>, 'Name': <'Door'>, 'Type': <'audio'>}},)");
    EXPECT_EQ(call("Sync"), "()");
    const std::vector<std::string> expected = {"create",    "remove", "load",           "load",
                                               "save Bell", "load",   "update controls"};
    EXPECT_EQ(handled, expected);
    expect_no_log();
}

TEST_F(GroupDbus, RecordWithANegativeNumberIsNotListed)
{
    ASSERT_TRUE(sonobrik_group_dbus_setup());
    listed = {-1, 7, G_MININT32};
    EXPECT_EQ(call("GetConfigurations"),
              "({7: {'Location': <'/door.wav'>, 'Name': <'Door'>, 'Type': <'audio'>}},)");
    expect_no_log();
}

TEST_F(GroupDbus, IntrospectionShowsTheExactInterface)
{
    ASSERT_TRUE(sonobrik_group_dbus_setup());
    const std::string text =
        call("Introspect", nullptr, OBJECT, "org.freedesktop.DBus.Introspectable");
    const size_t begin = text.find(" <interface name=\"com.vesk.Configuration.Legacy\">");
    ASSERT_NE(begin, std::string::npos) << text;
    const std::string end = "</interface>";
    EXPECT_EQ(text.substr(begin, text.find(end, begin) - begin + end.size()),
              R"( <interface name="com.vesk.Configuration.Legacy">\n)"
              R"(  <method name="AddConfiguration">\n)"
              R"(   <arg type="i" direction="in"/>\n)"
              R"(   <arg type="i" direction="out"/>\n)"
              R"(  </method>\n)"
              R"(  <method name="RemoveConfiguration">\n)"
              R"(   <arg type="i" direction="in"/>\n)"
              R"(  </method>\n)"
              R"(  <method name="GetConfigurationEntry">\n)"
              R"(   <arg type="i" direction="in"/>\n)"
              R"(   <arg type="s" direction="in"/>\n)"
              R"(   <arg type="v" direction="out"/>\n)"
              R"(  </method>\n)"
              R"(  <method name="SetConfigurationEntry">\n)"
              R"(   <arg type="i" direction="in"/>\n)"
              R"(   <arg type="s" direction="in"/>\n)"
              R"(   <arg type="v" direction="in"/>\n)"
              R"(  </method>\n)"
              R"(  <method name="GetConfigurations">\n)"
              R"(   <arg type="a{ia{sv}}" direction="out"/>\n)"
              R"(  </method>\n)"
              R"(  <method name="Sync">\n)"
              R"(  </method>\n)"
              R"( </interface>)");
}

/* GetConfigurationEntry, which a filter answers before the table. */

TEST_F(GroupDbus, GetEntryWithWrongArgumentsIsLeftToTheTable)
{
    ASSERT_TRUE(sonobrik_group_dbus_setup());
    EXPECT_EQ(call("GetConfigurationEntry", g_variant_new("(s)", "Name")),
              "org.freedesktop.DBus.Error.InvalidArgs: Invalid arguments 's' to call "
              "com.vesk.Configuration.Legacy.GetConfigurationEntry(), expecting 'is'.");
    EXPECT_TRUE(handled.empty());
}

TEST_F(GroupDbus, GetEntryOnAnotherObjectIsUnknown)
{
    ASSERT_TRUE(sonobrik_group_dbus_setup());
    EXPECT_EQ(call("GetConfigurationEntry", g_variant_new("(is)", 3, "Name"), "/com/vesk"),
              "org.freedesktop.DBus.Error.UnknownObject: Unknown object '/com/vesk'.");
    EXPECT_TRUE(handled.empty());
}

TEST_F(GroupDbus, GetEntryOfAnotherInterfaceIsUnknown)
{
    ASSERT_TRUE(sonobrik_group_dbus_setup());
    EXPECT_EQ(call("GetConfigurationEntry", g_variant_new("(is)", 3, "Name"), OBJECT,
                   "com.vesk.Sonobrik"),
              "org.freedesktop.DBus.Error.UnknownMethod: Unknown method GetConfigurationEntry or "
              "interface com.vesk.Sonobrik.");
    EXPECT_TRUE(handled.empty());
}

TEST_F(GroupDbus, OtherMemberWithTheSameArgumentsIsUnknown)
{
    ASSERT_TRUE(sonobrik_group_dbus_setup());
    EXPECT_EQ(call("GetConfigurationEntries", g_variant_new("(is)", 3, "Name")),
              "org.freedesktop.DBus.Error.UnknownMethod: Unknown method GetConfigurationEntries or "
              "interface com.vesk.Configuration.Legacy.");
    EXPECT_TRUE(handled.empty());
}

TEST_F(GroupDbus, SignalIsNotTreatedAsACall)
{
    ASSERT_TRUE(sonobrik_group_dbus_setup());
    EXPECT_TRUE(g_dbus_connection_emit_signal(stranger, SERVICE, OBJECT, INTERFACE,
                                              "GetConfigurationEntry",
                                              g_variant_new("(is)", 3, "Name"), nullptr));
    settle(stranger, SERVICE);
    EXPECT_TRUE(handled.empty());
}

TEST_F(GroupDbus, GetEntryWithoutAnInterfaceIsLeftToTheTable)
{
    ASSERT_TRUE(sonobrik_group_dbus_setup());
    for (const char *method : {"GetConfigurationEntry", "Sync"}) {
        PendingCall pending(stranger, SERVICE, OBJECT, nullptr, method,
                            g_variant_new("(is)", 3, "Name"));
        EXPECT_EQ(pending.wait(), "org.freedesktop.DBus.Error.UnknownObject: Unknown object "
                                  "'/com/vesk/Sonobrik'.");
    }
    EXPECT_TRUE(handled.empty());
}

/* Set-up and teardown. */

TEST_F(GroupDbus, NameIsOwnedFromSetupToTeardown)
{
    EXPECT_FALSE(has_owner());
    ASSERT_TRUE(sonobrik_group_dbus_setup());
    EXPECT_TRUE(has_owner());
    sonobrik_group_dbus_teardown();
    EXPECT_TRUE(loses_owner());
    expect_no_log();
}

TEST_F(GroupDbus, MissingBusFailsTheSetup)
{
    FailingCalls calls;
    calls.fail("sd_bus_open_system", -ENOENT);
    EXPECT_FALSE(sonobrik_group_dbus_setup());
    expect_log(LOG_LEVEL_ERROR, "Failed to connect to system bus: No such file or directory.");
    expect_log(LOG_LEVEL_ERROR, "Failed to connect to the system bus");
    expect_no_log();
}

TEST_F(GroupDbus, FailureAfterTheConnectionFailsTheSetup)
{
    /* The first two filters are those of the connection. */
    const std::pair<const char *, int> steps[] = {{"sd_bus_add_object_vtable", 1},
                                                  {"sd_bus_add_filter", 3}};
    for (const auto &[function, number] : steps) {
        FailingCalls calls;
        calls.fail_one(function, number, -ENOMEM);
        EXPECT_FALSE(sonobrik_group_dbus_setup()) << function;
        expect_log(LOG_LEVEL_ERROR, "Failed to setup the dbus object /com/vesk/Sonobrik: Cannot "
                                    "allocate memory.");
        expect_no_log();
        EXPECT_TRUE(has_owner()) << "the connection stays until the teardown";
        sonobrik_group_dbus_teardown();
        EXPECT_TRUE(loses_owner());
    }
}
