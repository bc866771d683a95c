#include "audioclip_methods.h"

#include <string>
#include <vector>

#include "bus_server.h"
#include "discover_media_supported.h"
#include "failing_calls.h"
#include "private_bus.h"
#include "sonobrik_group.h"
#include "sonobrik_group_metadata.h"
#include "sonobrik_osc.h"
#include "sonobrik_param_events.h"

namespace
{

using Calls = std::vector<std::string>;

constexpr const char *NONCHARACTER = "\xEF\xBF\xBE"; /* U+FFFE */

Calls done; /* calls of the fakes, in order */
bool create_fails;
bool announcement_fails;
bool osc_update_fails;
const char *metadata; /* of all clips; may be null */

/* The two methods that use the store. */
class ClipStoreMethods : public BusTest
{
  protected:
    ClipStoreMethods()
    {
        done.clear();
        create_fails = announcement_fails = osc_update_fails = false;
        metadata = "[]";
        server.serve("/AddClip", sonobrik_add_clip);
        server.serve("/GetMetadata", sonobrik_get_metadata);
    }

    /* Calls a method. Each method has its own object, without a method table. */
    std::string call(const std::string &method, GVariant *arguments = nullptr)
    {
        return bus_call(stranger, server.name, "/" + method, "com.vesk.Test", method, arguments);
    }

    std::string add(const char *location, const char *name, const char *type)
    {
        return call("AddClip", g_variant_new("(sss)", location, name, type));
    }

    BusServer server;
    FailingCalls calls;
};

constexpr const char *NOK = "com.vesk.Sonobrik.AddClip: NOK";

} // namespace

bool sonobrik_group_create_group(gint32 *index, const char *location, const char *name,
                                 const char *type)
{
    EXPECT_EQ(*index, -1);
    done.push_back(std::string("create ") + location + " " + name + " " + type);
    if (!create_fails) {
        *index = 7;
    }
    return !create_fails;
}

bool sonobrik_param_events_register_new(gint32 number, const char *location, const char *name,
                                        const char *type)
{
    done.push_back("announce " + std::to_string(number) + " " + location + " " + name + " " + type);
    return !announcement_fails;
}

bool sonobrik_osc_update()
{
    done.emplace_back("refresh");
    return !osc_update_fails;
}

char *sonobrik_group_get_metadata()
{
    done.emplace_back("describe");
    return g_strdup(metadata);
}

bool discover_media_is_supported(const char *, char **)
{
    ADD_FAILURE() << "nothing here inspects a file";
    return false;
}

/* AddClip. */

TEST_F(ClipStoreMethods, ClipIsCreatedAnnouncedAndAddedToTheControls)
{
    EXPECT_EQ(add("/etc/audioclips/a b.wav", "T\xC3\xBCr", "audio"), "(7,)");
    EXPECT_EQ(done, (Calls{"create /etc/audioclips/a b.wav T\xC3\xBCr audio",
                           "announce 7 /etc/audioclips/a b.wav T\xC3\xBCr audio", "refresh"}));
    expect_no_log();
}

TEST_F(ClipStoreMethods, ClipMayHaveNoName)
{
    EXPECT_EQ(add("/etc/audioclips/a.wav", "", "audio"), "(7,)");
}

TEST_F(ClipStoreMethods, LocationIsComparedAsAPlainPrefix)
{
    EXPECT_EQ(add("/etc/audioclips", "A", "audio"), "(7,)");
    EXPECT_EQ(add("/etc/audioclips-old/a.wav", "A", "audio"), "(7,)");
    EXPECT_EQ(add("/etc/audioclips/../passwd", "A", "audio"), "(7,)");
    expect_no_log();
}

TEST_F(ClipStoreMethods, LocationElsewhereIsRefused)
{
    for (const char *location :
         {"/etc/audioclip", "/etc/passwd", "etc/audioclips/a.wav", "", " /etc/audioclips/a.wav",
          "/ETC/audioclips/a.wav", "file:///etc/audioclips/a.wav"}) {
        EXPECT_EQ(add(location, "A", "audio"), NOK) << location;
    }
    EXPECT_EQ(done, Calls{});
    expect_no_log();
}

TEST_F(ClipStoreMethods, OtherTypesAreRefused)
{
    for (const char *type : {"Audio", "audio ", "audi", "audios", "", "video"}) {
        EXPECT_EQ(add("/etc/audioclips/a.wav", "A", type), NOK) << type;
    }
    EXPECT_EQ(done, Calls{});
    expect_no_log();
}

TEST_F(ClipStoreMethods, ClipThatCannotBeCreatedIsNotAnnounced)
{
    create_fails = true;
    EXPECT_EQ(add("/etc/audioclips/a.wav", "A", "audio"), NOK);
    EXPECT_EQ(done, Calls{"create /etc/audioclips/a.wav A audio"});
    expect_no_log();
}

TEST_F(ClipStoreMethods, ClipIsAddedWithoutTheControls)
{
    osc_update_fails = true;
    EXPECT_EQ(add("/etc/audioclips/a.wav", "A", "audio"), "(7,)");
    expect_log(G_LOG_LEVEL_WARNING, "Failed to update onscreencontrols while adding clip");
    expect_no_log();
}

TEST_F(ClipStoreMethods, ClipIsAddedWithoutAnAnnouncement)
{
    announcement_fails = true;
    EXPECT_EQ(add("/etc/audioclips/a.wav", "A", "audio"), "(7,)");
    EXPECT_EQ(done.back(), "refresh");
    expect_no_log();
}

TEST_F(ClipStoreMethods, FailureToAppendTheNumberSkipsTheAnnouncement)
{
    calls.fail("sd_bus_message_append");
    EXPECT_EQ(add("/etc/audioclips/a.wav", "A", "audio"), NOK);
    EXPECT_EQ(done, (Calls{"create /etc/audioclips/a.wav A audio", "refresh"}));
    expect_no_log();
}

TEST_F(ClipStoreMethods, WrongArgumentTypeIsAnsweredWithTheReason)
{
    for (GVariant *arguments : {g_variant_new("(iss)", 1, "A", "audio"),
                                g_variant_new("(sis)", "/etc/audioclips/a.wav", 1, "audio"),
                                g_variant_new("(ssi)", "/etc/audioclips/a.wav", "A", 1)}) {
        EXPECT_EQ(call("AddClip", arguments),
                  "com.vesk.Sonobrik.AddClip: Failed to parse parameter(s): No such device or "
                  "address.");
    }
    EXPECT_EQ(done, Calls{});
    expect_no_log();
}

TEST_F(ClipStoreMethods, TextThatSdBusRefusesIsAnsweredWithTheReason)
{
    const char *reason = "com.vesk.Sonobrik.AddClip: Failed to parse parameter(s): Bad message.";
    EXPECT_EQ(add(NONCHARACTER, "A", "audio"), reason);
    EXPECT_EQ(add("/etc/audioclips/a.wav", NONCHARACTER, "audio"), reason);
    EXPECT_EQ(add("/etc/audioclips/a.wav", "A", NONCHARACTER), reason);
    EXPECT_EQ(done, Calls{});
}

TEST_F(ClipStoreMethods, NothingIsAddedWithoutAReply)
{
    calls.fail("sd_bus_message_new_method_return");
    EXPECT_EQ(add("/etc/audioclips/a.wav", "A", "audio"),
              "org.freedesktop.DBus.Error.AccessDenied: Operation not permitted");
    EXPECT_EQ(done, Calls{});
    clear_log();
}

/* GetMetadata. */

TEST_F(ClipStoreMethods, MetadataIsReturnedUnchanged)
{
    metadata = R"([{"4":{"name":"100%s","size":5}}])";
    EXPECT_EQ(call("GetMetadata"), R"(('[{"4":{"name":"100%s","size":5}}]',))");
    EXPECT_EQ(done, Calls{"describe"});
    expect_no_log();
}

TEST_F(ClipStoreMethods, MissingMetadataIsAnError)
{
    metadata = nullptr;
    EXPECT_EQ(call("GetMetadata"), "com.vesk.Sonobrik.GetMetadata: Could not obtain metadata");
    expect_no_log();
}

TEST_F(ClipStoreMethods, FailureToAppendTheMetadataAnswersNok)
{
    calls.fail("sd_bus_message_append");
    EXPECT_EQ(call("GetMetadata"), "com.vesk.Sonobrik.GetMetadata: NOK");
    expect_no_log();
}

TEST_F(ClipStoreMethods, MetadataIsNotReadWithoutAReply)
{
    calls.fail("sd_bus_message_new_method_return");
    EXPECT_EQ(call("GetMetadata"),
              "org.freedesktop.DBus.Error.AccessDenied: Operation not permitted");
    EXPECT_EQ(done, Calls{});
    clear_log();
}
