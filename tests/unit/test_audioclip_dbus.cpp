#include "audioclip_dbus.h"

#include <cerrno>

#include "bus_server.h"
#include "discover_media_supported.h"
#include "failing_calls.h"
#include "fake_audio_clip.h"
#include "fake_service_frame.h"
#include "platform/access_policy.h"
#include "private_bus.h"

namespace
{

using Lines = std::vector<std::string>;

constexpr const char *SERVICE = "com.vesk.Sonobrik";
constexpr const char *OBJECT = "/com/vesk/Sonobrik";
constexpr const char *INTERFACE = "com.vesk.Sonobrik";
constexpr const char *DENIED = "org.freedesktop.DBus.Error.AccessDenied: Operation not permitted";

constexpr const char *METHODS[] = {"AddClip",  "GetMetadata",     "StartPlayingClip",
                                   "PlayClip", "StopPlayingClip", "SupportedFile"};

/* The methods that take one string. */
constexpr const char *TEXT_METHODS[] = {"StartPlayingClip", "PlayClip", "StopPlayingClip",
                                        "SupportedFile"};

/* The calls that the fakes below recorded, and their results. */
struct Fakes {
    bool policy_works = true;
    bool is_allowed = true;
    bool gives_reasons = true; /* sets the error when it fails or refuses */
    Lines checks;              /* "SENDER ACTION" */
    Lines inspected;
};

Fakes fakes;

bool refuse(GError **error, const char *text)
{
    if (fakes.gives_reasons) {
        g_set_error_literal(error, g_quark_from_static_string("test"), 0, text);
    }
    return false;
}

class ServiceTest : public BusTest
{
  protected:
    ServiceTest()
    {
        fakes = {};
        quits.clear();
    }

    ~ServiceTest() override
    {
        audioclip_dbus_teardown();
        /* A set-up that failed early leaves its connection open. */
        if (left_open) {
            sd_bus_flush_close_unref(library.opened);
        }
    }

    int setup()
    {
        return audioclip_dbus_setup(&clip);
    }

    std::string call(const char *interface, const char *method, GVariant *arguments)
    {
        PendingCall pending(stranger, SERVICE, OBJECT, interface, method, arguments);
        return pending.wait();
    }

    std::string call(const char *method)
    {
        return call(INTERFACE, method, g_variant_new("(s)", "options"));
    }

    bool is_on_bus()
    {
        return bus_call(stranger, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                        "org.freedesktop.DBus", "NameHasOwner",
                        g_variant_new("(s)", SERVICE)) == "(true,)";
    }

    /* Waits: the bus notices a closed connection a little later. */
    bool leaves_bus()
    {
        return run_until([this] { return !is_on_bus(); });
    }

    void own(GDBusConnection *peer, const char *name)
    {
        EXPECT_EQ(bus_call(peer, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                           "org.freedesktop.DBus", "RequestName", g_variant_new("(su)", name, 0)),
                  "(uint32 1,)");
    }

    /* Signals a change of the audio devices; a null `destination` broadcasts it. */
    void announce(const char *destination, const char *member = "InterfacesAdded")
    {
        g_dbus_connection_emit_signal(stranger, destination, "/com/vesk/AudioControl",
                                      "org.freedesktop.DBus.ObjectManager", member, nullptr,
                                      nullptr);
        settle(stranger, SERVICE);
    }

    AudioClip clip;
    FailingCalls library;
    bool left_open = false;
};

} // namespace

bool access_policy_init(GError **error)
{
    return fakes.policy_works || refuse(error, "no such policy");
}

bool access_policy_check(const char *sender, const char *action, GError **error)
{
    fakes.checks.push_back(std::string(sender) + " " + action);
    return fakes.is_allowed || refuse(error, "not on the list");
}

bool discover_media_is_supported(const char *path, char **)
{
    fakes.inspected.emplace_back(path);
    return true;
}

/* Set-up and teardown. */

TEST_F(ServiceTest, SetUpStartsTheService)
{
    EXPECT_GE(setup(), 0);
    EXPECT_TRUE(is_on_bus());
    expect_no_log();
}

TEST_F(ServiceTest, PolicyFailureWithoutAReasonFailsTheSetUp)
{
    fakes.policy_works = false;
    fakes.gives_reasons = false;
    EXPECT_EQ(setup(), -1);
    expect_log(LOG_LEVEL_ERROR, "access_policy_init failed, error no reason given");
    expect_no_log();
}

TEST_F(ServiceTest, RefusalWithoutAReasonIsLogged)
{
    setup();
    fakes.is_allowed = false;
    fakes.gives_reasons = false;
    EXPECT_EQ(call("StopPlayingClip"), DENIED);
    expect_log(G_LOG_LEVEL_INFO, "Failed to authorize: no reason given");
    expect_no_log();
}

TEST_F(ServiceTest, UnusablePolicyFailsTheSetUpBeforeConnecting)
{
    fakes.policy_works = false;
    EXPECT_EQ(setup(), -1);
    expect_log(LOG_LEVEL_ERROR, "access_policy_init failed, error no such policy");
    expect_no_log();
    EXPECT_EQ(library.count("sd_bus_open_system"), 0);
}

TEST_F(ServiceTest, OwnedNameFailsTheSetUp)
{
    own(stranger, SERVICE);
    left_open = true;
    EXPECT_EQ(setup(), -1);
    expect_log(LOG_LEVEL_ERROR, "Failed to acquire service name com.vesk.Sonobrik: File exists.");
    expect_log(LOG_LEVEL_ERROR, "Failed to connect to the system bus");
    expect_no_log();
}

TEST_F(ServiceTest, FailureToAddTheAccessCheckFailsTheSetUp)
{
    library.fail("sd_bus_add_object", -ENOMEM);
    EXPECT_EQ(setup(), -ENOMEM);
    expect_log(LOG_LEVEL_ERROR, "Failed to add dbus object /com/vesk/Sonobrik for access_policy "
                                "handler: Cannot allocate memory.");
    expect_no_log();
    EXPECT_EQ(library.count("sd_bus_add_object_vtable"), 0);
}

TEST_F(ServiceTest, FailureToAddTheMethodsFailsTheSetUp)
{
    library.fail("sd_bus_add_object_vtable", -EEXIST);
    EXPECT_EQ(setup(), -EEXIST);
    expect_log(LOG_LEVEL_ERROR, "Failed to setup the dbus object /com/vesk/Sonobrik: File exists.");
    expect_no_log();
    EXPECT_EQ(library.count("sd_bus_match_signal InterfacesAdded"), 0);
}

TEST_F(ServiceTest, FailureToListenForDevicesFailsTheSetUp)
{
    library.fail("sd_bus_match_signal InterfacesRemoved", -ENOBUFS);
    EXPECT_EQ(setup(), -ENOBUFS);
    expect_log(LOG_LEVEL_ERROR,
               "Failed to setup the dbus listener to audiocontrol: No buffer space available.");
    expect_no_log();
}

TEST_F(ServiceTest, TeardownCleansUpAfterAFailedSetUp)
{
    library.fail("sd_bus_add_object_vtable", -EEXIST);
    setup();
    clear_log();
    EXPECT_TRUE(is_on_bus());
    audioclip_dbus_teardown();
    EXPECT_TRUE(leaves_bus());
}

TEST_F(ServiceTest, TeardownEndsTheService)
{
    setup();
    audioclip_dbus_teardown();
    EXPECT_TRUE(leaves_bus());
    audioclip_dbus_teardown();
    expect_no_log();
}

TEST_F(ServiceTest, TeardownDropsTheHeldCall)
{
    setup();
    PendingCall held(stranger, SERVICE, OBJECT, INTERFACE, "PlayClip",
                     g_variant_new("(s)", "options"));
    settle(stranger, SERVICE);
    audioclip_dbus_teardown();
    EXPECT_EQ(held.wait(), "org.freedesktop.DBus.Error.NoReply: Message recipient disconnected "
                           "from message bus without replying");
    EXPECT_EQ(library.count("sd_bus_reply_method_return"), 0);
    clip.end();
    expect_log(LOG_LEVEL_ERROR, "audioclip_dbus_synchronous_sd_bus_reply was called unexpectedly");
    expect_no_log();
}

TEST_F(ServiceTest, ServiceCanBeSetUpAgain)
{
    setup();
    PendingCall held(stranger, SERVICE, OBJECT, INTERFACE, "PlayClip",
                     g_variant_new("(s)", "options"));
    settle(stranger, SERVICE);
    audioclip_dbus_teardown();
    EXPECT_TRUE(leaves_bus());
    EXPECT_GE(setup(), 0);
    clip.end(); /* the held call was dropped */
    EXPECT_EQ(call("StartPlayingClip"), "('OK',)");
    expect_log(G_LOG_LEVEL_INFO, "sonobrik_play_clip_asynchronous with options: options");
    expect_no_log();
}

/* Introspection and standard interfaces. */

TEST_F(ServiceTest, RefusedCallerCanIntrospectTheMethods)
{
    setup();
    fakes.is_allowed = false;
    const std::string reply = call("org.freedesktop.DBus.Introspectable", "Introspect", nullptr);
    g_autofree char *text = g_strcompress(reply.c_str());
    const std::string xml = text;
    const size_t begin = xml.find(" <interface name=\"com.vesk.Sonobrik\">");
    ASSERT_NE(begin, std::string::npos) << xml;
    const size_t end = xml.find(" </interface>", begin);
    EXPECT_EQ(xml.substr(begin, end - begin), R"( <interface name="com.vesk.Sonobrik">
  <method name="AddClip">
   <arg type="s" direction="in"/>
   <arg type="s" direction="in"/>
   <arg type="s" direction="in"/>
   <arg type="i" direction="out"/>
  </method>
  <method name="GetMetadata">
   <arg type="s" direction="out"/>
  </method>
  <method name="StartPlayingClip">
   <arg type="s" direction="in"/>
   <arg type="s" direction="out"/>
  </method>
  <method name="PlayClip">
   <arg type="s" direction="in"/>
   <arg type="s" direction="out"/>
  </method>
  <method name="StopPlayingClip">
   <arg type="s" direction="in"/>
   <arg type="s" direction="out"/>
  </method>
  <method name="SupportedFile">
   <arg type="s" direction="in"/>
   <arg type="s" direction="out"/>
  </method>
)");
    EXPECT_EQ(fakes.checks, Lines{});
    expect_no_log();
}

TEST_F(ServiceTest, StandardInterfacesAreOpenToARefusedCaller)
{
    setup();
    fakes.is_allowed = false;
    EXPECT_EQ(call("org.freedesktop.DBus.Peer", "Ping", nullptr), "()");
    EXPECT_EQ(call("org.freedesktop.DBus.Properties", "GetAll", g_variant_new("(s)", INTERFACE)),
              "(@a{sv} {},)");
    EXPECT_EQ(fakes.checks, Lines{});
}

/* Access checks. */

TEST_F(ServiceTest, EachMethodIsCheckedUnderItsOwnName)
{
    setup();
    const std::string caller = g_dbus_connection_get_unique_name(stranger);
    clip.refusal = "no";
    Lines expected;
    for (const char *method : METHODS) {
        call(method);
        expected.push_back(caller + " com.vesk.Sonobrik." + method);
    }
    EXPECT_EQ(fakes.checks, expected);
}

TEST_F(ServiceTest, RefusedCallerReachesNoMethod)
{
    setup();
    fakes.is_allowed = false;
    for (const char *method : METHODS) {
        EXPECT_EQ(call(method), DENIED);
        expect_log(G_LOG_LEVEL_INFO, "Failed to authorize: not on the list");
    }
    EXPECT_EQ(clip.calls, Lines{});
    EXPECT_EQ(fakes.inspected, Lines{});
    expect_no_log();
}

TEST_F(ServiceTest, RefusedCallerCannotProbeForMethods)
{
    setup();
    fakes.is_allowed = false;
    EXPECT_EQ(call("NoSuchMethod"), DENIED);
    EXPECT_EQ(call(INTERFACE, "PlayClip", g_variant_new("(i)", 5)), DENIED);
}

TEST_F(ServiceTest, CallWithoutAnInterfaceIsNotCheckedAndReachesNoMethod)
{
    setup();
    for (const char *method : METHODS) {
        EXPECT_TRUE(call(nullptr, method, g_variant_new("(s)", "options"))
                        .starts_with("org.freedesktop.DBus.Error.UnknownMethod: "));
    }
    EXPECT_EQ(fakes.checks, Lines{});
    EXPECT_EQ(clip.calls, Lines{});
    EXPECT_EQ(fakes.inspected, Lines{});
}

TEST_F(ServiceTest, OtherInterfacesAreNotCheckedAndReachNoMethod)
{
    setup();
    for (const char *interface :
         {"com.vesk.Sonobrik.Other", "com.vesk.Sonobri", "com.vesk.sonobrik"}) {
        EXPECT_TRUE(call(interface, "StartPlayingClip", g_variant_new("(s)", "options"))
                        .starts_with("org.freedesktop.DBus.Error.UnknownMethod: "));
    }
    EXPECT_EQ(fakes.checks, Lines{});
    EXPECT_EQ(clip.calls, Lines{});
}

TEST_F(ServiceTest, MessageWithoutAMemberIsCheckedUnderTheNameOfTheInterface)
{
    setup();
    library.fail("sd_bus_message_get_member", 0);
    call("StartPlayingClip");
    EXPECT_EQ(fakes.checks, Lines{std::string(g_dbus_connection_get_unique_name(stranger)) +
                                  " com.vesk.Sonobrik"});
}

/* The methods. */

TEST_F(ServiceTest, MethodsReachThePlayerAndTheDiscovery)
{
    setup();
    EXPECT_EQ(call(INTERFACE, "StartPlayingClip", g_variant_new("(s)", "a")), "('OK',)");
    EXPECT_EQ(call(INTERFACE, "StopPlayingClip", g_variant_new("(s)", "b")), "('OK',)");
    EXPECT_EQ(call(INTERFACE, "SupportedFile", g_variant_new("(s)", "c")), "('OK',)");
    PendingCall held(stranger, SERVICE, OBJECT, INTERFACE, "PlayClip", g_variant_new("(s)", "d"));
    settle(stranger, SERVICE);
    EXPECT_FALSE(held.is_answered());
    clip.end();
    EXPECT_EQ(held.wait(), "('OK',)");
    EXPECT_EQ(clip.calls, (Lines{"start a", "stop b", "start d"}));
    EXPECT_EQ(fakes.inspected, Lines{"c"});
}

TEST_F(ServiceTest, MethodsReachTheClipStore)
{
    setup();
    EXPECT_EQ(call(INTERFACE, "AddClip", g_variant_new("(sss)", "/etc/audioclips/a", "A", "audio")),
              "(7,)");
    EXPECT_EQ(call(INTERFACE, "GetMetadata", nullptr), "('[]',)");
}

TEST_F(ServiceTest, HeldCallIsAnsweredBeforeTheStopCall)
{
    setup();
    PendingCall held(stranger, SERVICE, OBJECT, INTERFACE, "PlayClip", g_variant_new("(s)", "a"));
    PendingCall stop(stranger, SERVICE, OBJECT, INTERFACE, "StopPlayingClip",
                     g_variant_new("(s)", ""));
    EXPECT_EQ(held.wait(), "('OK',)");
    EXPECT_EQ(stop.wait(), "('OK',)");
    EXPECT_LT(held.rank(), stop.rank());
}

TEST_F(ServiceTest, ArgumentsOfOtherTypesAreRefused)
{
    setup();
    for (const char *method : TEXT_METHODS) {
        EXPECT_EQ(call(INTERFACE, method, g_variant_new("(i)", 5)),
                  std::string("org.freedesktop.DBus.Error.InvalidArgs: Invalid arguments 'i' to "
                              "call com.vesk.Sonobrik.") +
                      method + "(), expecting 's'.");
        EXPECT_EQ(call(INTERFACE, method, nullptr),
                  std::string("org.freedesktop.DBus.Error.InvalidArgs: Invalid arguments '' to "
                              "call com.vesk.Sonobrik.") +
                      method + "(), expecting 's'.");
    }
    EXPECT_EQ(clip.calls, Lines{});
}

TEST_F(ServiceTest, ArgumentThatSdBusRefusesGetsAnError)
{
    setup();
    for (const char *method : TEXT_METHODS) {
        EXPECT_EQ(call(INTERFACE, method, g_variant_new("(s)", "\xEF\xBF\xBE")),
                  std::string("com.vesk.Sonobrik.") + method +
                      ": Failed to parse parameter(s): Bad message.");
    }
}

TEST_F(ServiceTest, OtherObjectsHaveNoMethods)
{
    setup();
    for (const char *object : {"/", "/com/vesk", "/com/vesk/Sonobrik/0"}) {
        PendingCall pending(stranger, SERVICE, object, INTERFACE, "StartPlayingClip",
                            g_variant_new("(s)", "options"));
        EXPECT_TRUE(pending.wait().starts_with("org.freedesktop.DBus.Error.Unknown"));
    }
    EXPECT_EQ(clip.calls, Lines{});
}

/* Changes of the audio devices. */

TEST_F(ServiceTest, DeviceChangeRequestsARestart)
{
    setup();
    own(stranger, "com.vesk.AudioControl");
    announce(nullptr, "InterfacesAdded");
    EXPECT_EQ(quits, (std::vector<gint32>{75}));
    announce(nullptr, "InterfacesRemoved");
    EXPECT_EQ(quits, (std::vector<gint32>{75, 75}));
    expect_no_log();
}

TEST_F(ServiceTest, SignalsOfOtherSendersAreIgnored)
{
    setup();
    announce(nullptr, "InterfacesAdded");
    announce(nullptr, "InterfacesRemoved");
    EXPECT_TRUE(quits.empty());
}

TEST_F(ServiceTest, UnicastSignalIsIgnored)
{
    setup();
    announce(SERVICE, "InterfacesAdded");
    announce(SERVICE, "InterfacesRemoved");
    own(stranger, "com.vesk.AudioControl");
    announce(SERVICE, "InterfacesAdded");
    EXPECT_TRUE(quits.empty());
    expect_no_log();
}
