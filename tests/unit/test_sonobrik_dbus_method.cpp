#include "sonobrik_dbus_method.h"

#include <cerrno>
#include <cstring>

#include "autoptr.h"
#include "bus_server.h"
#include "failing_calls.h"
#include "private_bus.h"

namespace
{

constexpr const char *ERROR_NAME = "com.vesk.Sonobrik.PlayClip";
constexpr const char *EURO = "\xE2\x82\xAC";
constexpr const char *CLEF = "\xF0\x9D\x84\x9E";
constexpr const char *NONCHARACTER = "\xEF\xBF\xBE"; /* U+FFFE */
constexpr const char *REPLACEMENT = "\xEF\xBF\xBD";  /* U+FFFD */

std::string letters(size_t count)
{
    return std::string(count, 'a');
}

std::string truncation_line(const std::string &text)
{
    return "sonobrik_dbus_method_error_msg the error message '" + text + "' has been truncated.";
}

/* How the handler below answers a call, and what it recorded. */
struct Script {
    std::string error_text; /* the error text to set; empty: none */
    bool succeeds = false;
    bool sends_reply = true;
    int send_result = -1;
    int read_result = 0;
    std::string argument;
    std::string error_name_set;
};

/* A method handler that follows its script. */
int handle(sd_bus_message *message, void *user_data, sd_bus_error *ret_error)
{
    auto *script = static_cast<Script *>(user_data);
    sonobrik_dbus_method state = {message, 0, ERROR_NAME, "NOK"};
    g_autoptr(sd_bus_message) reply = sonobrik_dbus_method_new_reply(&state);
    const char *argument = nullptr;
    if (reply) {
        script->read_result = sonobrik_dbus_get_string_arg(message, &argument, &state);
    }
    if (reply && script->read_result >= 0) {
        script->argument = argument;
        if (!script->error_text.empty()) {
            sonobrik_dbus_method_error_msg(&state, script->error_text.c_str());
        }
        if (script->succeeds) {
            sd_bus_message_append(reply, "s", "OK");
            sonobrik_dbus_method_set_successful(&state, true);
        }
    }
    script->send_result = sonobrik_dbus_method_send_reply(&state, reply, ret_error);
    script->error_name_set = sd_bus_error_is_set(ret_error) ? ret_error->name : "";
    return sonobrik_dbus_method_return_code(&state);
}

class MethodOnBusTest : public BusTest
{
  protected:
    MethodOnBusTest()
    {
        server.serve("/test", handle, &script);
    }

    std::string call(GVariant *arguments)
    {
        return bus_call(stranger, server.name, "/test", "com.vesk.Test", "Test", arguments);
    }

    std::string call()
    {
        return call(g_variant_new("(s)", "options"));
    }

    BusServer server;
    FailingCalls calls;
    Script script;
};

class MethodTest : public LogTest
{
  protected:
    sonobrik_dbus_method method = {nullptr, 0, ERROR_NAME, "NOK"};
};

} // namespace

/* The text of the error. */

TEST_F(MethodTest, TextOf255BytesIsKeptWholeWithoutAWarning)
{
    sonobrik_dbus_method_error_msg(&method, letters(255).c_str());
    EXPECT_EQ(method.error_message, letters(255));
    expect_no_log();
}

TEST_F(MethodTest, TextOf256BytesIsTruncatedAndLoggedWhole)
{
    sonobrik_dbus_method_error_msg(&method, letters(256).c_str());
    EXPECT_EQ(method.error_message, letters(255));
    expect_log(G_LOG_LEVEL_WARNING, truncation_line(letters(256)));
    expect_no_log();
}

TEST_F(MethodTest, CharacterThatEndsAtTheLimitIsKept)
{
    const std::string text = letters(252) + EURO + "b";
    sonobrik_dbus_method_error_msg(&method, text.c_str());
    EXPECT_EQ(method.error_message, letters(252) + EURO);
    expect_log(G_LOG_LEVEL_WARNING, truncation_line(text));
}

TEST_F(MethodTest, CharacterAcrossTheLimitIsDroppedWhole)
{
    for (const size_t missing : {1, 2, 3}) {
        const std::string text = letters(255 - missing) + CLEF;
        sonobrik_dbus_method_error_msg(&method, text.c_str());
        EXPECT_EQ(method.error_message, letters(255 - missing));
        expect_log(G_LOG_LEVEL_WARNING, truncation_line(text));
    }
}

TEST_F(MethodTest, NoncharacterInTheTextIsReplaced)
{
    sonobrik_dbus_method_error_msg(&method, (std::string("a") + NONCHARACTER + "b").c_str());
    EXPECT_EQ(method.error_message, std::string("a") + REPLACEMENT + "b");
    expect_no_log();
}

TEST_F(MethodTest, BytesThatAreNotUtf8AreReplaced)
{
    sonobrik_dbus_method_error_msg(&method, "a\xFF"
                                            "b");
    EXPECT_EQ(method.error_message, std::string("a") + REPLACEMENT + "b");
}

TEST_F(MethodTest, TextThatReplacementMakesTooLongIsTruncated)
{
    const std::string text = letters(254) + "\xFF";
    sonobrik_dbus_method_error_msg(&method, text.c_str());
    EXPECT_EQ(method.error_message, letters(254));
    expect_log(G_LOG_LEVEL_WARNING, truncation_line(text));
}

TEST_F(MethodTest, LaterTextReplacesAnEarlierOne)
{
    sonobrik_dbus_method_error_msg(&method, "a long first text");
    sonobrik_dbus_method_error_msg(&method, "second");
    EXPECT_STREQ(method.error_message, "second");
}

TEST_F(MethodTest, EmptyTextReplacesTheDefault)
{
    sonobrik_dbus_method_error_msg(&method, "");
    EXPECT_STREQ(method.error_message, "");
}

TEST_F(MethodTest, NullTextKeepsTheDefault)
{
    sonobrik_dbus_method_error_msg(&method, nullptr);
    EXPECT_STREQ(method.error_message, "NOK");
    expect_no_log();
}

TEST_F(MethodTest, SettingATextOnNullDoesNothing)
{
    sonobrik_dbus_method_error_msg(nullptr, letters(256).c_str());
    expect_no_log();
}

/* Success and the return code. */

TEST_F(MethodTest, ReturnCodeFollowsSuccess)
{
    EXPECT_EQ(sonobrik_dbus_method_return_code(&method), -1);
    sonobrik_dbus_method_set_successful(&method, true);
    EXPECT_EQ(sonobrik_dbus_method_return_code(&method), 1);
    sonobrik_dbus_method_set_successful(&method, false);
    EXPECT_EQ(sonobrik_dbus_method_return_code(&method), -1);
}

TEST_F(MethodTest, NullMethodIsUnsuccessful)
{
    sonobrik_dbus_method_set_successful(nullptr, true);
    EXPECT_EQ(sonobrik_dbus_method_return_code(nullptr), -1);
    expect_no_log();
}

/* Null arguments of the operations that log them. */

TEST_F(MethodTest, NewReplyOfNullIsNullWithAWarning)
{
    EXPECT_EQ(sonobrik_dbus_method_new_reply(nullptr), nullptr);
    expect_log(G_LOG_LEVEL_WARNING,
               "sonobrik_dbus_method_new_reply has been called with invalid arguments");
    expect_no_log();
}

TEST_F(MethodOnBusTest, SendReplyRefusesEachNullArgument)
{
    constexpr const char *line =
        "sonobrik_dbus_method_send_reply has been called with invalid arguments";
    g_autoptr(sd_bus_message) reply = nullptr;
    ASSERT_GE(sd_bus_message_new_signal(server.bus, &reply, "/test", "com.vesk.Test", "Test"), 0);
    sonobrik_dbus_method method = {reply, 0, ERROR_NAME, "NOK"};
    sd_bus_error error = {};
    for (const bool successful : {false, true}) {
        sonobrik_dbus_method_set_successful(&method, successful);
        EXPECT_EQ(sonobrik_dbus_method_send_reply(nullptr, reply, &error), 0);
        expect_log(G_LOG_LEVEL_WARNING, line);
        EXPECT_EQ(sonobrik_dbus_method_send_reply(&method, nullptr, &error), 0);
        expect_log(G_LOG_LEVEL_WARNING, line);
        EXPECT_EQ(sonobrik_dbus_method_send_reply(&method, reply, nullptr), 0);
        expect_log(G_LOG_LEVEL_WARNING, line);
    }
    expect_no_log();
    EXPECT_FALSE(sd_bus_error_is_set(&error));
    EXPECT_EQ(calls.count("sd_bus_send"), 0);
}

TEST_F(MethodOnBusTest, UnreadableArgumentWithANullMethodFails)
{
    g_autoptr(sd_bus_message) message = nullptr;
    ASSERT_GE(sd_bus_message_new_signal(server.bus, &message, "/test", "com.vesk.Test", "Test"), 0);
    ASSERT_GE(sd_bus_message_append(message, "i", 5), 0);
    ASSERT_GE(sd_bus_message_seal(message, 1, 0), 0);
    const char *argument = nullptr;
    EXPECT_EQ(sonobrik_dbus_get_string_arg(message, &argument, nullptr), -ENXIO);
    EXPECT_EQ(argument, nullptr);
    expect_no_log();
}

/* Answers on the bus. */

TEST_F(MethodOnBusTest, SuccessfulCallGetsTheReply)
{
    script.succeeds = true;
    EXPECT_EQ(call(), "('OK',)");
    EXPECT_EQ(script.argument, "options");
    EXPECT_GT(script.read_result, 0);
    EXPECT_EQ(script.send_result, 1);
    EXPECT_EQ(script.error_name_set, "");
    expect_no_log();
}

TEST_F(MethodOnBusTest, FailureWithoutATextAnswersNok)
{
    EXPECT_EQ(call(), "com.vesk.Sonobrik.PlayClip: NOK");
    EXPECT_EQ(script.send_result, 1);
    EXPECT_EQ(calls.count("sd_bus_send"), 0);
    expect_no_log();
}

TEST_F(MethodOnBusTest, FailureAnswersItsText)
{
    script.error_text = "A clip %s is already playing.";
    EXPECT_EQ(call(), "com.vesk.Sonobrik.PlayClip: A clip %s is already playing.");
    expect_no_log();
}

TEST_F(MethodOnBusTest, TextTruncatedInsideACharacterIsStillSent)
{
    script.error_text = letters(253) + EURO;
    EXPECT_EQ(call(), "com.vesk.Sonobrik.PlayClip: " + letters(253));
    expect_log(G_LOG_LEVEL_WARNING, truncation_line(script.error_text));
}

TEST_F(MethodOnBusTest, TextWithANoncharacterIsStillSent)
{
    script.error_text = std::string("No file at '") + NONCHARACTER + "'.";
    EXPECT_EQ(call(), std::string("com.vesk.Sonobrik.PlayClip: No file at '") + REPLACEMENT + "'.");
}

TEST_F(MethodOnBusTest, WrongArgumentTypeIsAnsweredWithTheReason)
{
    EXPECT_EQ(call(g_variant_new("(i)", 5)),
              std::string("com.vesk.Sonobrik.PlayClip: Failed to parse parameter(s): ") +
                  strerror(ENXIO) + ".");
    EXPECT_EQ(script.read_result, -ENXIO);
    expect_no_log();
}

TEST_F(MethodOnBusTest, MissingArgumentIsAnsweredWithTheReason)
{
    EXPECT_EQ(call(nullptr),
              "com.vesk.Sonobrik.PlayClip: Failed to parse parameter(s): No such device or "
              "address.");
}

TEST_F(MethodOnBusTest, ArgumentThatSdBusRefusesIsAnsweredWithTheReason)
{
    EXPECT_EQ(call(g_variant_new("(s)", NONCHARACTER)),
              "com.vesk.Sonobrik.PlayClip: Failed to parse parameter(s): Bad message.");
    EXPECT_EQ(script.read_result, -EBADMSG);
}

TEST_F(MethodOnBusTest, ReplyThatCannotBeMadeAnswersAccessDenied)
{
    script.succeeds = true;
    calls.fail("sd_bus_message_new_method_return", -ENOMEM);
    EXPECT_EQ(call(), "org.freedesktop.DBus.Error.AccessDenied: Operation not permitted");
    EXPECT_EQ(script.argument, "");
    EXPECT_EQ(script.send_result, 0);
    expect_log(G_LOG_LEVEL_INFO, "sonobrik_dbus_method_new_reply failed to create dbus method "
                                 "reply message due to 'Cannot allocate memory'");
    expect_log(G_LOG_LEVEL_WARNING,
               "sonobrik_dbus_method_send_reply has been called with invalid arguments");
    expect_no_log();
}

TEST_F(MethodOnBusTest, ReplyThatCannotBeSentAnswersTheMethodsError)
{
    script.succeeds = true;
    calls.fail("sd_bus_send", -ENOBUFS);
    EXPECT_EQ(call(), "com.vesk.Sonobrik.PlayClip: Failed to send a positive dbus response");
    EXPECT_EQ(script.send_result, 0);
    expect_log(G_LOG_LEVEL_INFO, "sonobrik_dbus_method_send_reply failed to send positive reply "
                                 "message due to No buffer space available");
    expect_no_log();
}
