#include "group_methods.h"

#include <string>
#include <vector>

#include "bus_server.h"
#include "failing_calls.h"
#include "private_bus.h"
#include "sonobrik_osc.h"
#include "store_folder.h"

namespace
{

constexpr const char *NONCHARACTER = "\xEF\xBF\xBE"; /* U+FFFE */

int osc_updates;
bool osc_update_fails;

class GroupMethods : public BusTest
{
  protected:
    GroupMethods()
    {
        osc_updates = 0;
        osc_update_fails = false;
        server.serve("/AddConfiguration", sonobrik_group_add_configuration);
        server.serve("/RemoveConfiguration", sonobrik_group_remove_configuration);
        server.serve("/GetConfigurationEntry", sonobrik_group_get_configuration);
        server.serve("/SetConfigurationEntry", sonobrik_group_set_configuration);
        server.serve("/GetConfigurations", sonobrik_group_get_configurations);
        server.serve("/Sync", sonobrik_group_sync);
    }

    /* Calls a method. Each method has its own object, without a method table. */
    std::string call(const std::string &method, GVariant *arguments = nullptr)
    {
        return bus_call(stranger, server.name, "/" + method, "com.vesk.Test", method, arguments);
    }

    std::string call(const std::string &method, gint32 index)
    {
        return call(method, g_variant_new("(i)", index));
    }

    std::string get(gint32 index, const char *name)
    {
        return call("GetConfigurationEntry", g_variant_new("(is)", index, name));
    }

    std::string set(gint32 index, const char *name, GVariant *value)
    {
        return call("SetConfigurationEntry", g_variant_new("(isv)", index, name, value));
    }

    /* Sets a property to these bytes, which may include zeros. */
    std::string set(gint32 index, const char *name, const std::string &bytes)
    {
        return set(index, name,
                   g_variant_new_fixed_array(G_VARIANT_TYPE_BYTE, bytes.data(), bytes.size(), 1));
    }

    /* Expects the log line for the file `name` that is left out, and no other. */
    void expect_left_out(const std::string &name)
    {
        expect_log(G_LOG_LEVEL_WARNING, "Left out 'clip_data/" + name +
                                            "', which contains text that D-Bus cannot transmit");
        expect_no_log();
    }

    /* Returns the error that the caller gets if the method fails. */
    static std::string failure(const std::string &method)
    {
        return "com.vesk.Sonobrik.Legacy." + method + ": ";
    }

    /* Returns the entry of a record in the reply of GetConfigurations. */
    static std::string entry(const std::string &index, const std::string &location,
                             const std::string &name, const std::string &type)
    {
        return index + ": {'Location': <'" + location + "'>, 'Name': <'" + name + "'>, 'Type': <'" +
               type + "'>}";
    }

    void expect_not_parsed(const std::string &handler)
    {
        expect_log(G_LOG_LEVEL_WARNING, handler + ", failed to parse incoming message");
        expect_no_log();
    }

    void expect_too_long(const std::string &name)
    {
        expect_log(G_LOG_LEVEL_WARNING,
                   "The value of property '" + name + "' exceeds the limit of 256 characters");
        expect_no_log();
    }

    StoreFolder store;
    BusServer server;
    FailingCalls calls;
};

struct Method {
    const char *name;
    const char *handler;
};

/* Tests for all six methods. */
class AnyGroupMethod : public GroupMethods, public ::testing::WithParamInterface<const char *>
{
};

/* Tests for the methods that take arguments. */
class GroupMethodWithArguments : public GroupMethods, public ::testing::WithParamInterface<Method>
{
};

} // namespace

bool sonobrik_osc_update()
{
    osc_updates++;
    return !osc_update_fails;
}

INSTANTIATE_TEST_SUITE_P(Methods, AnyGroupMethod,
                         ::testing::Values("AddConfiguration", "RemoveConfiguration",
                                           "GetConfigurationEntry", "SetConfigurationEntry",
                                           "GetConfigurations", "Sync"),
                         [](const auto &method) { return std::string(method.param); });

TEST_P(AnyGroupMethod, DoesNothingWithoutAReply)
{
    StoreFolder::write("M0.json", record_file("", "", ""));
    calls.fail("sd_bus_message_new_method_return", -ENOMEM);
    EXPECT_EQ(call(GetParam(), g_variant_new("(isv)", 0, "Name", g_variant_new_bytestring("A"))),
              "org.freedesktop.DBus.Error.AccessDenied: Operation not permitted");
    expect_log(G_LOG_LEVEL_INFO, "sonobrik_dbus_method_new_reply failed to create dbus method "
                                 "reply message due to 'Cannot allocate memory'");
    expect_log(G_LOG_LEVEL_WARNING,
               "sonobrik_dbus_method_send_reply has been called with invalid arguments");
    expect_no_log();
    EXPECT_TRUE(fake_platform.written.empty());
    EXPECT_EQ(StoreFolder::names().size(), 1U);
    EXPECT_EQ(osc_updates, 0);
}

INSTANTIATE_TEST_SUITE_P(
    Methods, GroupMethodWithArguments,
    ::testing::Values(Method{"AddConfiguration", "sonobrik_group_add_configuration"},
                      Method{"RemoveConfiguration", "sonobrik_group_remove_configuration"},
                      Method{"GetConfigurationEntry", "sonobrik_group_get_configuration"},
                      Method{"SetConfigurationEntry", "sonobrik_group_set_configuration"}),
    [](const auto &method) { return std::string(method.param.name); });

TEST_P(GroupMethodWithArguments, ThatAreOfAnotherTypeFails)
{
    StoreFolder::write("M0.json", record_file("", "", ""));
    EXPECT_EQ(call(GetParam().name, g_variant_new("(ss)", "0", "Name")), failure(GetParam().name));
    expect_not_parsed(GetParam().handler);
    EXPECT_EQ(StoreFolder::names(), std::vector<std::string>{"M0.json"});
}

/* AddConfiguration. */

TEST_F(GroupMethods, RecordsAreAddedUpToTheBound)
{
    fake_platform.parameter = "2";
    EXPECT_EQ(call("AddConfiguration", -1), "(0,)");
    EXPECT_EQ(call("AddConfiguration", -1), "(1,)");
    expect_no_log();
    EXPECT_EQ(call("AddConfiguration", -1), failure("AddConfiguration"));
    expect_log(G_LOG_LEVEL_WARNING,
               "sonobrik_group_create_group a group with index 1 already exists");
    expect_log(G_LOG_LEVEL_INFO, "sonobrik_group_add_configuration failed to create new sonobrik "
                                 "group for index '-1'");
    expect_no_log();
}

TEST_F(GroupMethods, AddedRecordIsEmpty)
{
    EXPECT_EQ(call("AddConfiguration", 3), "(3,)");
    EXPECT_EQ(StoreFolder::read("M3.json"), record_file("", "", ""));
    EXPECT_EQ(osc_updates, 0);
}

TEST_F(GroupMethods, TakenIndexIsNotAdded)
{
    const std::string file = record_file("/door.wav", "Door", "audio");
    StoreFolder::write("M3.json", file);
    EXPECT_EQ(call("AddConfiguration", 3), failure("AddConfiguration"));
    expect_log(G_LOG_LEVEL_WARNING,
               "sonobrik_group_create_group a group with index 3 already exists");
    expect_log(G_LOG_LEVEL_INFO, "sonobrik_group_add_configuration failed to create new sonobrik "
                                 "group for index '3'");
    expect_no_log();
    EXPECT_EQ(StoreFolder::read("M3.json"), file);
}

TEST_F(GroupMethods, FailureToAppendTheIndexFails)
{
    calls.fail("sd_bus_message_append");
    EXPECT_EQ(call("AddConfiguration", -1), failure("AddConfiguration"));
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_add_configuration failed to add parameter index "
                                "to the reply message");
    expect_no_log();
}

/* RemoveConfiguration. */

TEST_F(GroupMethods, RecordIsRemoved)
{
    StoreFolder::write("M3.json", record_file("", "", ""));
    EXPECT_EQ(call("RemoveConfiguration", 3), "()");
    EXPECT_TRUE(StoreFolder::names().empty());
    EXPECT_EQ(osc_updates, 0);
    expect_no_log();
}

TEST_F(GroupMethods, MissingRecordIsNotRemoved)
{
    EXPECT_EQ(call("RemoveConfiguration", 3), failure("RemoveConfiguration"));
    expect_log(G_LOG_LEVEL_INFO,
               "sonobrik_group_remove_group file 'clip_data/M3.json' does not exit");
    expect_log(G_LOG_LEVEL_INFO,
               "sonobrik_group_remove_configuration Failed to remove parameter with index '3'");
    expect_no_log();
}

/* GetConfigurationEntry. */

TEST_F(GroupMethods, PropertyIsReadWithItsName)
{
    StoreFolder::write("M0.json", record_file("/door.wav", "Door", ""));
    EXPECT_EQ(get(0, "Location"), "('Location', <'/door.wav'>)");
    EXPECT_EQ(get(0, "Name"), "('Name', <'Door'>)");
    EXPECT_EQ(get(0, "Type"), "('Type', <''>)");
    expect_no_log();
}

TEST_F(GroupMethods, UnknownPropertyIsNotRead)
{
    StoreFolder::write("M0.json", record_file("/door.wav", "Door", "audio"));
    EXPECT_EQ(get(0, "name"), failure("GetConfigurationEntry"));
    expect_log(G_LOG_LEVEL_WARNING, "Invalid property 'name'");
    expect_no_log();
}

TEST_F(GroupMethods, PropertyOfAMissingRecordIsNotReadOrLogged)
{
    EXPECT_EQ(get(0, "Name"), failure("GetConfigurationEntry"));
    EXPECT_EQ(get(0, "No such property"), failure("GetConfigurationEntry"));
    expect_no_log();
}

TEST_F(GroupMethods, PropertyOfAnInvalidIndexIsNotRead)
{
    EXPECT_EQ(get(-1, "Name"), failure("GetConfigurationEntry"));
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_conf_get_file_path invalid index '-1'");
    expect_no_log();
}

TEST_F(GroupMethods, PropertyThatTheBusRefusesIsNotRead)
{
    StoreFolder::write("M0.json", record_file("/door.wav", NONCHARACTER, "audio"));
    EXPECT_EQ(get(0, "Name"), failure("GetConfigurationEntry"));
    EXPECT_EQ(get(0, "Type"), "('Type', <'audio'>)");
    expect_no_log();
}

TEST_F(GroupMethods, FailureToAppendThePropertyFails)
{
    StoreFolder::write("M0.json", record_file("/door.wav", "Door", "audio"));
    for (const int number : {1, 2}) {
        calls.fail_one("sd_bus_message_append", number);
        EXPECT_EQ(get(0, "Name"), failure("GetConfigurationEntry"));
    }
    expect_no_log();
}

/* SetConfigurationEntry. */

class RenameTest : public GroupMethods
{
  protected:
    RenameTest()
    {
        StoreFolder::write("M0.json", file);
    }

    /* Returns the expected file after a rename. */
    static std::string renamed(const std::string &name)
    {
        return record_file("/door.wav", name, "audio", "{\n    \"size\": 5\n  }");
    }

    const std::string file = renamed("Door");
};

TEST_F(RenameTest, NameIsSetToBytes)
{
    EXPECT_EQ(set(0, "Name", "T\xC3\xBCr 1"), "()");
    EXPECT_EQ(StoreFolder::read("M0.json"), renamed("T\xC3\xBCr 1"));
    EXPECT_EQ(osc_updates, 0);
    expect_no_log();
}

TEST_F(RenameTest, NameEndsAtTheFirstZero)
{
    EXPECT_EQ(set(0, "Name", std::string("Be\0ll", 5)), "()");
    EXPECT_EQ(StoreFolder::read("M0.json"), renamed("Be"));
    expect_no_log();
}

TEST_F(RenameTest, NoBytesGiveAnEmptyName)
{
    EXPECT_EQ(set(0, "Name", ""), "()");
    EXPECT_EQ(StoreFolder::read("M0.json"), renamed(""));
    expect_no_log();
}

TEST_F(RenameTest, NameOf255BytesIsSet)
{
    EXPECT_EQ(set(0, "Name", std::string(255, 'a')), "()");
    EXPECT_EQ(StoreFolder::read("M0.json"), renamed(std::string(255, 'a')));
    expect_no_log();
}

TEST_F(RenameTest, NameOf256BytesIsRefused)
{
    EXPECT_EQ(set(0, "Name", std::string(256, 'a')), failure("SetConfigurationEntry"));
    expect_too_long("Name");
    EXPECT_EQ(StoreFolder::read("M0.json"), file);
}

TEST_F(RenameTest, LongerNameIsRefused)
{
    EXPECT_EQ(set(0, "Name", std::string(100000, 'a')), failure("SetConfigurationEntry"));
    expect_too_long("Name");
}

TEST_F(RenameTest, BytesAfterTheZeroCountTowardsTheLimit)
{
    EXPECT_EQ(set(0, "Name", std::string("a") + std::string(255, '\0')),
              failure("SetConfigurationEntry"));
    expect_too_long("Name");
    EXPECT_EQ(StoreFolder::read("M0.json"), file);
}

TEST_F(RenameTest, ValueOfAnotherTypeEmptiesTheName)
{
    for (GVariant *value :
         {g_variant_new_string("Bell"), g_variant_new_int32(5), g_variant_new_strv(nullptr, 0),
          g_variant_new_variant(g_variant_new_bytestring("Bell")), g_variant_new_byte('B')}) {
        StoreFolder::write("M0.json", file);
        EXPECT_EQ(set(0, "Name", value), "()");
        EXPECT_EQ(StoreFolder::read("M0.json"), renamed(""));
    }
    expect_no_log();
}

TEST_F(RenameTest, OtherPropertiesAreNotSet)
{
    for (const char *name : {"Location", "Type", "name", "", "Names"}) {
        EXPECT_EQ(set(0, name, "Bell"), failure("SetConfigurationEntry"));
        expect_log(G_LOG_LEVEL_WARNING, std::string("Unable to change value of property called '") +
                                            name + "' for group number 0");
        expect_no_log();
    }
    EXPECT_EQ(StoreFolder::read("M0.json"), file);
}

TEST_F(RenameTest, PropertyIsCheckedBeforeTheRecord)
{
    EXPECT_EQ(set(-7, "Type", "Bell"), failure("SetConfigurationEntry"));
    expect_log(G_LOG_LEVEL_WARNING,
               "Unable to change value of property called 'Type' for group number -7");
    expect_no_log();
}

TEST_F(RenameTest, ValueIsReadBeforeThePropertyIsChecked)
{
    EXPECT_EQ(set(0, "Type", std::string(256, 'a')), failure("SetConfigurationEntry"));
    expect_too_long("Type");
}

TEST_F(RenameTest, MissingRecordIsNotRenamedOrLogged)
{
    EXPECT_EQ(set(1, "Name", "Bell"), failure("SetConfigurationEntry"));
    expect_no_log();
    EXPECT_EQ(StoreFolder::names(), std::vector<std::string>{"M0.json"});
}

TEST_F(RenameTest, BytesThatAreNotUtf8AreRefused)
{
    EXPECT_EQ(set(0, "Name", "\xFF"), failure("SetConfigurationEntry"));
    expect_log(LOG_LEVEL_ERROR,
               "sonobrik_group_json_pack Failed to create object, error 'Invalid UTF-8 string'");
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_save failed to pack json object");
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_set_enum_property Failed to update parameter");
    expect_no_log();
    EXPECT_EQ(StoreFolder::read("M0.json"), file);
}

TEST_F(RenameTest, NameThatTheBusRefusesIsRefused)
{
    EXPECT_EQ(set(0, "Name", NONCHARACTER), failure("SetConfigurationEntry"));
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_json_pack Failed to create object, error 'It "
                                "contains text that D-Bus cannot transmit'");
    expect_log(LOG_LEVEL_ERROR, "sonobrik_group_save failed to pack json object");
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_set_enum_property Failed to update parameter");
    expect_no_log();
    EXPECT_EQ(StoreFolder::read("M0.json"), file);
}

TEST_F(RenameTest, NameInAFileThatTheBusRefusesIsReplaced)
{
    StoreFolder::write("M0.json", renamed(NONCHARACTER));
    EXPECT_EQ(set(0, "Name", "Bell"), "()");
    EXPECT_EQ(StoreFolder::read("M0.json"), renamed("Bell"));
    expect_no_log();
}

/* The method refuses to change a location, so this test calls the operation below it. */
TEST_F(RenameTest, LocationSetByNameReachesTheFileWithoutTheOldMetadata)
{
    g_autoptr(SonobrikGroup) group = sonobrik_group_from_index(0);
    EXPECT_TRUE(sonobrik_group_set_property(group, "Location", "/bell.wav"));
    EXPECT_EQ(StoreFolder::read("M0.json"), record_file("/bell.wav", "Door", "audio"));
    EXPECT_EQ(get(0, "Location"), "('Location', <'/bell.wav'>)");
    expect_no_log();
}

TEST_F(RenameTest, FailureToWriteFailsTheCall)
{
    fake_platform.write_fails = true;
    EXPECT_EQ(set(0, "Name", "Bell"), failure("SetConfigurationEntry"));
    EXPECT_EQ(StoreFolder::read("M0.json"), file);
    clear_log();
}

/* GetConfigurations. */

TEST_F(GroupMethods, EmptyStoreFails)
{
    EXPECT_EQ(call("GetConfigurations"), failure("GetConfigurations"));
    expect_no_log();
}

TEST_F(GroupMethods, RecordIsListedWithItsPropertiesInOrder)
{
    StoreFolder::write("M3.json", record_file("/door.wav", "T\xC3\xBCr", ""));
    EXPECT_EQ(call("GetConfigurations"), "({" + entry("3", "/door.wav", "T\xC3\xBCr", "") + "},)");
    expect_no_log();
}

TEST_F(GroupMethods, AllRecordsAreListedInTheFoldersOrder)
{
    for (const char *index : {"0", "3", "99"}) {
        StoreFolder::write(std::string("M") + index + ".json",
                           record_file("/door.wav", index, "audio"));
    }
    std::string expected;
    for (const std::string &name : StoreFolder::names()) {
        const std::string index = name.substr(1, name.find('.') - 1);
        expected += (expected.empty() ? "" : ", ") + entry(index, "/door.wav", index, "audio");
    }
    EXPECT_EQ(call("GetConfigurations"), "({" + expected + "},)");
    expect_no_log();
}

TEST_F(GroupMethods, RecordsBeyondTheBudgetOfTheReplyAreLeftOut)
{
    /* Each is taken for 4095 + 255 + 255 + 128 bytes, so 3545 are too many. */
    const std::string record =
        record_file(std::string(4095, 'x'), std::string(255, 'y'), std::string(255, 'z'));
    for (int i = 0; i < 3600; i++) {
        StoreFolder::write("M" + std::to_string(i) + ".json", record);
    }
    const std::string reply = call("GetConfigurations");
    size_t listed = 0;
    for (size_t at = reply.find("'Type'"); at != std::string::npos; at = reply.find("'Type'", at)) {
        listed++;
        at++;
    }
    EXPECT_EQ(listed, 3544U);
    expect_log(G_LOG_LEVEL_WARNING, "Left out 56 clips, because the reply to GetConfigurations "
                                    "would exceed 16777216 bytes");
    expect_no_log();
}

TEST_F(GroupMethods, OnlyTheRecordThatTheBusRefusesIsLeftOut)
{
    StoreFolder::write("M1.json", record_file("/a", "A", "audio"));
    StoreFolder::write("M3.json", record_file("/b", NONCHARACTER, "audio"));
    EXPECT_EQ(call("GetConfigurations"), "({" + entry("1", "/a", "A", "audio") + "},)");
    expect_left_out("M3.json");
    StoreFolder::write("M3.json", record_file(NONCHARACTER, "B", "audio"));
    EXPECT_EQ(call("GetConfigurations"), "({" + entry("1", "/a", "A", "audio") + "},)");
    expect_left_out("M3.json");
    expect_no_log();
}

TEST_F(GroupMethods, StoreOfOnlyRefusedRecordsCountsAsEmpty)
{
    StoreFolder::write("M3.json", record_file("/b", "B", NONCHARACTER));
    EXPECT_EQ(call("GetConfigurations"), failure("GetConfigurations"));
    expect_left_out("M3.json");
    expect_no_log();
}

TEST_F(GroupMethods, EntryThatCannotBeOpenedIsSkipped)
{
    StoreFolder::write("M1.json", record_file("/a", "same", "audio"));
    StoreFolder::write("M2.json", record_file("/a", "same", "audio"));
    const std::string second = StoreFolder::names()[1].substr(1, 1);
    calls.fail_one("sd_bus_message_open_container", 2); /* the first opens the array */
    EXPECT_EQ(call("GetConfigurations"), "({" + entry(second, "/a", "same", "audio") + "},)");
    expect_no_log();
}

TEST_F(GroupMethods, EntryWhosePropertiesCannotBeAppendedFailsTheCall)
{
    StoreFolder::write("M1.json", record_file("/a", "A", "audio"));
    StoreFolder::write("M2.json", record_file("/a", "A", "audio"));
    calls.fail_one("sd_bus_message_append", 2); /* the first appends the index */
    EXPECT_EQ(call("GetConfigurations"), failure("GetConfigurations"));
    expect_no_log();
}

/*
 * The record is skipped, but sd-bus does not close an entry that lacks its index or its array, so
 * the reply stays incomplete and cannot be sent.
 */
class IncompleteEntry : public GroupMethods
{
  protected:
    void expect_failed_once()
    {
        StoreFolder::write("M1.json", record_file("/a", "A", "audio"));
        EXPECT_EQ(call("GetConfigurations"),
                  failure("GetConfigurations") + "Failed to send a positive dbus response");
        expect_log(G_LOG_LEVEL_INFO,
                   "sonobrik_dbus_method_send_reply failed to send positive reply "
                   "message due to Bad message");
        expect_no_log();
        EXPECT_EQ(call("GetConfigurations"), "({" + entry("1", "/a", "A", "audio") + "},)");
    }
};

TEST_F(IncompleteEntry, IndexThatCannotBeAppendedFailsTheCall)
{
    calls.fail_one("sd_bus_message_append", 1);
    expect_failed_once();
}

TEST_F(IncompleteEntry, ArrayThatCannotBeOpenedFailsTheCall)
{
    calls.fail_one("sd_bus_message_open_container", 3); /* after the outer array and the entry */
    expect_failed_once();
}

/* Sync. */

TEST_F(GroupMethods, SyncUpdatesTheControls)
{
    EXPECT_EQ(call("Sync"), "()");
    EXPECT_EQ(osc_updates, 1);
    expect_no_log();
}

TEST_F(GroupMethods, SyncThatCannotBeAnsweredHasItsOwnError)
{
    calls.fail("sd_bus_send");
    EXPECT_EQ(call("Sync"),
              "com.vesk.Sonobrik.Legacy.Sync: Failed to send a positive dbus response");
    expect_log(G_LOG_LEVEL_INFO, "sonobrik_dbus_method_send_reply failed to send positive reply "
                                 "message due to Cannot allocate memory");
    expect_no_log();
}

TEST_F(GroupMethods, SyncSucceedsWithoutTheControls)
{
    osc_update_fails = true;
    EXPECT_EQ(call("Sync"), "()");
    expect_log(G_LOG_LEVEL_WARNING, "Failed to update onscreencontrols while syncing parameters");
    expect_no_log();
}
