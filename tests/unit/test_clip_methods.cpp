#include "audioclip_methods.h"

#include <cerrno>

#include "bus_server.h"
#include "discover_media_supported.h"
#include "failing_calls.h"
#include "private_bus.h"

namespace
{

constexpr const char *NONCHARACTER = "\xEF\xBF\xBE"; /* U+FFFE */
constexpr const char *REPLACEMENT = "\xEF\xBF\xBD";  /* U+FFFD */

/* The result and the calls of the fake discovery. */
struct Discovery {
    std::vector<std::string> paths; /* passed to the fake */
    bool is_supported = false;
    std::string explanation; /* empty: no explanation */
};

Discovery discovery;

class ClipMethodsTest : public BusTest
{
  protected:
    ClipMethodsTest()
    {
        discovery = {};
        server.serve("/test", sonobrik_supported_file);
    }

    std::string call(GVariant *arguments)
    {
        return bus_call(stranger, server.name, "/test", "com.vesk.Test", "SupportedFile",
                        arguments);
    }

    std::string call(const char *path)
    {
        return call(g_variant_new("(s)", path));
    }

    BusServer server;
    FailingCalls library;
};

} // namespace

bool discover_media_is_supported(const char *path, char **error_message)
{
    discovery.paths.emplace_back(path);
    if (!discovery.is_supported && !discovery.explanation.empty()) {
        EXPECT_EQ(*error_message, nullptr);
        *error_message = g_strdup(discovery.explanation.c_str());
    }
    return discovery.is_supported;
}

TEST_F(ClipMethodsTest, SupportedFileIsOk)
{
    discovery.is_supported = true;
    EXPECT_EQ(call("/etc/audioclips/a b.wav"), "('OK',)");
    EXPECT_EQ(discovery.paths, std::vector<std::string>{"/etc/audioclips/a b.wav"});
    expect_no_log();
}

TEST_F(ClipMethodsTest, UnsupportedFileIsExplained)
{
    discovery.explanation = "Not supported: 100% text";
    EXPECT_EQ(call("/etc/passwd"), "com.vesk.Sonobrik.SupportedFile: Not supported: 100% text");
    expect_no_log();
}

TEST_F(ClipMethodsTest, UnsupportedFileWithoutAnExplanationIsNok)
{
    EXPECT_EQ(call("/etc/passwd"), "com.vesk.Sonobrik.SupportedFile: NOK");
    expect_no_log();
}

TEST_F(ClipMethodsTest, ExplanationThatTheBusRefusesIsRepaired)
{
    discovery.explanation = std::string("No '") + NONCHARACTER + "'";
    EXPECT_EQ(call("/etc/passwd"),
              std::string("com.vesk.Sonobrik.SupportedFile: No '") + REPLACEMENT + "'");
}

TEST_F(ClipMethodsTest, FailureToAppendTheResultAnswersNok)
{
    discovery.is_supported = true;
    library.fail("sd_bus_message_append", -ENOMEM);
    EXPECT_EQ(call("a.wav"), "com.vesk.Sonobrik.SupportedFile: NOK");
    expect_no_log();
}

TEST_F(ClipMethodsTest, WrongArgumentTypeIsAnsweredWithTheReason)
{
    EXPECT_EQ(call(g_variant_new("(i)", 5)),
              "com.vesk.Sonobrik.SupportedFile: Failed to parse parameter(s): No such device or "
              "address.");
    EXPECT_TRUE(discovery.paths.empty());
    expect_no_log();
}

TEST_F(ClipMethodsTest, PathThatSdBusRefusesIsAnsweredWithTheReason)
{
    EXPECT_EQ(call(NONCHARACTER),
              "com.vesk.Sonobrik.SupportedFile: Failed to parse parameter(s): Bad message.");
    EXPECT_TRUE(discovery.paths.empty());
}

TEST_F(ClipMethodsTest, NothingIsInspectedWithoutAReply)
{
    library.fail("sd_bus_message_new_method_return", -ENOMEM);
    EXPECT_EQ(call("a.wav"), "org.freedesktop.DBus.Error.AccessDenied: Operation not permitted");
    EXPECT_TRUE(discovery.paths.empty());
    expect_log(G_LOG_LEVEL_INFO, "sonobrik_dbus_method_new_reply failed to create dbus method "
                                 "reply message due to 'Cannot allocate memory'");
    expect_log(G_LOG_LEVEL_WARNING,
               "sonobrik_dbus_method_send_reply has been called with invalid arguments");
    expect_no_log();
}
