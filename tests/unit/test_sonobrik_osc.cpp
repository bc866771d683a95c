#include "sonobrik_osc.h"

#include <cerrno>
#include <cstdlib>
#include <cstring>
#include <filesystem>
#include <gio/gunixfdlist.h>
#include <string>
#include <sys/socket.h>
#include <vector>

#include "bus_server.h"
#include "failing_calls.h"
#include "fake_controls.h"
#include "osc_document.h"
#include "private_bus.h"

namespace
{

const char *document; /* null: making it fails */
int documents;

class SonobrikOsc : public BusTest
{
  protected:
    SonobrikOsc()
    {
        document = R"({"name":"playClip"})";
        documents = 0;
    }

    ~SonobrikOsc() override
    {
        sonobrik_osc_teardown();
    }

    /* Expects the log line of the failed step with this number. */
    void expect_failure(int number, const std::string &text)
    {
        expect_log(LOG_LEVEL_ERROR, "Failed to execute sd-bus command (line " +
                                        std::to_string(number) + "): " + text);
        expect_no_log();
    }

    /* Sends a signal with a file descriptor to the connection `name`. */
    void send_signal_with_file(const std::string &name)
    {
        g_autoptr(GDBusMessage) signal = g_dbus_message_new_signal("/a", "com.vesk.Test", "Signal");
        g_autoptr(GUnixFDList) files = g_unix_fd_list_new();
        g_unix_fd_list_append(files, STDERR_FILENO, nullptr);
        g_dbus_message_set_destination(signal, name.c_str());
        g_dbus_message_set_unix_fd_list(signal, files);
        g_dbus_connection_send_message(stranger, signal, G_DBUS_SEND_MESSAGE_FLAGS_NONE, nullptr,
                                       nullptr);
    }

    FailingCalls calls;
};

size_t count_open_files()
{
    const std::filesystem::directory_iterator files("/proc/self/fd");
    return static_cast<size_t>(std::distance(begin(files), end(files)));
}

constexpr const char *REQUEST = "com.vesk.Onscreencontrols1 /com/vesk/Onscreencontrols1 "
                                "com.vesk.Onscreencontrols1.AddFeatures "
                                R"(('en-us', 'English', '{"name":"playClip"}', @a{sv} {}))";

} // namespace

char *osc_document_new()
{
    documents++;
    return document ? strdup(document) : nullptr;
}

TEST_F(SonobrikOsc, FeaturesAreAdded)
{
    FakeControls controls(bus);
    EXPECT_TRUE(sonobrik_osc_update());
    EXPECT_EQ(controls.requests(), std::vector<std::string>{REQUEST});
    expect_no_log();
}

TEST_F(SonobrikOsc, SetupAddsTheFeatures)
{
    FakeControls controls(bus);
    EXPECT_TRUE(sonobrik_osc_setup());
    EXPECT_EQ(controls.requests(), std::vector<std::string>{REQUEST});
}

TEST_F(SonobrikOsc, AnswerMayHaveAnyContent)
{
    FakeControls controls(bus);
    controls.answer = FakeControls::Answer::TEXT;
    EXPECT_TRUE(sonobrik_osc_update());
    expect_no_log();
}

TEST_F(SonobrikOsc, CallUsesTheDefaultTimeOutOfTheBus)
{
    FakeControls controls(bus);
    EXPECT_TRUE(sonobrik_osc_update());
    EXPECT_EQ(calls.call_timeout, 0U);
}

TEST_F(SonobrikOsc, ErrorOfTheServiceIsLogged)
{
    FakeControls controls(bus);
    controls.answer = FakeControls::Answer::ERROR;
    EXPECT_FALSE(sonobrik_osc_update());
    expect_failure(135, "Permission denied");
    EXPECT_EQ(controls.requests().size(), 1U);
}

TEST_F(SonobrikOsc, MissingServiceIsLogged)
{
    EXPECT_FALSE(sonobrik_osc_update());
    expect_failure(135, "No route to host");
}

TEST_F(SonobrikOsc, SetupReportsAMissingService)
{
    EXPECT_FALSE(sonobrik_osc_setup());
    expect_failure(135, "No route to host");
}

TEST_F(SonobrikOsc, ServiceThatStartsLaterIsReached)
{
    EXPECT_FALSE(sonobrik_osc_update());
    clear_log();
    FakeControls controls(bus);
    EXPECT_TRUE(sonobrik_osc_update());
    EXPECT_EQ(controls.requests().size(), 1U);
    EXPECT_EQ(calls.count("sd_bus_open_system"), 1);
    expect_no_log();
}

TEST_F(SonobrikOsc, SecondUpdateReusesTheConnectionAndRebuildsTheDocument)
{
    FakeControls controls(bus);
    EXPECT_TRUE(sonobrik_osc_update());
    document = "{}";
    EXPECT_TRUE(sonobrik_osc_update());
    EXPECT_EQ(calls.count("sd_bus_open_system"), 1);
    EXPECT_EQ(documents, 2);
    ASSERT_EQ(controls.requests().size(), 2U);
    EXPECT_NE(controls.requests()[1].find("'{}'"), std::string::npos);
    EXPECT_EQ(controls.callers().size(), 1U);
}

TEST_F(SonobrikOsc, MissingBusIsLogged)
{
    calls.fail("sd_bus_open_system", -ENOENT);
    EXPECT_FALSE(sonobrik_osc_update());
    expect_log(LOG_LEVEL_ERROR, "Failed to connect to the system bus.");
    expect_no_log();
    EXPECT_EQ(documents, 0);
}

TEST_F(SonobrikOsc, BusThatStartsLaterIsUsed)
{
    FakeControls controls(bus);
    calls.fail_one("sd_bus_open_system", 1, -ENOENT);
    EXPECT_FALSE(sonobrik_osc_update());
    clear_log();
    EXPECT_TRUE(sonobrik_osc_update());
}

/* Nothing would read the messages that arrive on it. */
TEST_F(SonobrikOsc, ConnectionThatTheLoopCannotRunIsClosed)
{
    FakeControls controls(bus);
    calls.fail_one("sd_event_new", 1, -EMFILE);
    EXPECT_FALSE(sonobrik_osc_update());
    expect_log(G_LOG_LEVEL_WARNING, "Failed to create event: Too many open files.");
    expect_log(LOG_LEVEL_ERROR, "Failed to attach to gMainLoop.");
    expect_log(LOG_LEVEL_ERROR, "Failed to connect to the system bus.");
    expect_no_log();
    EXPECT_EQ(calls.count("sd_bus_flush_close_unref"), 1);
    EXPECT_EQ(documents, 0);
    EXPECT_TRUE(sonobrik_osc_update());
    EXPECT_EQ(calls.count("sd_bus_open_system"), 2);
}

TEST_F(SonobrikOsc, NothingIsSentWithoutADocument)
{
    FakeControls controls(bus);
    document = nullptr;
    EXPECT_FALSE(sonobrik_osc_update());
    EXPECT_EQ(calls.count("sd_bus_message_new_method_call"), 0);
    EXPECT_TRUE(controls.requests().empty());
    expect_no_log();
}

TEST_F(SonobrikOsc, EachFailedStepIsLoggedWithItsNumber)
{
    FakeControls controls(bus);
    const struct {
        const char *function;
        int number;
    } steps[] = {{"sd_bus_message_new_method_call", 119},
                 {"sd_bus_message_append", 127},
                 {"sd_bus_message_close_container", 132},
                 {"sd_bus_call_async", 135}};
    for (const auto &step : steps) {
        calls.fail_one(step.function, 1, -ENOMEM);
        EXPECT_FALSE(sonobrik_osc_update()) << step.function;
        expect_failure(step.number, "Cannot allocate memory");
    }
    EXPECT_TRUE(controls.requests().empty());
    EXPECT_TRUE(sonobrik_osc_update()) << "the connection was kept";
    EXPECT_EQ(calls.count("sd_bus_open_system"), 1);
}

TEST_F(SonobrikOsc, FailureToOpenTheContainerShowsWhenItIsClosed)
{
    FakeControls controls(bus);
    calls.fail("sd_bus_message_open_container");
    EXPECT_FALSE(sonobrik_osc_update());
    expect_failure(132, "Invalid argument");
}

TEST_F(SonobrikOsc, DocumentThatTheBusRefusesIsLogged)
{
    FakeControls controls(bus);
    document = "\xEF\xBF\xBE";
    EXPECT_FALSE(sonobrik_osc_update());
    expect_failure(127, "Invalid argument");
}

TEST_F(SonobrikOsc, TeardownClosesTheConnection)
{
    FakeControls controls(bus);
    EXPECT_TRUE(sonobrik_osc_update());
    sonobrik_osc_teardown();
    EXPECT_EQ(calls.count("sd_bus_flush_close_unref"), 1);
    EXPECT_TRUE(sonobrik_osc_update());
    EXPECT_EQ(calls.count("sd_bus_open_system"), 2);
    EXPECT_EQ(controls.callers().size(), 2U);
}

TEST_F(SonobrikOsc, LostConnectionIsOpenedAgainByTheNextUpdate)
{
    FakeControls controls(bus);
    EXPECT_TRUE(sonobrik_osc_update());
    shutdown(sd_bus_get_fd(calls.opened), SHUT_RDWR);
    EXPECT_TRUE(run_until([this] { return calls.count("sd_bus_flush_close_unref") == 1; }));
    EXPECT_TRUE(sonobrik_osc_update());
    expect_log(G_LOG_LEVEL_WARNING, "The connection to the on-screen controls was lost.");
    EXPECT_EQ(controls.callers().size(), 2U);
    expect_no_log();
}

TEST_F(SonobrikOsc, UpdateNoticesALossThatTheLoopHasNotSeen)
{
    FakeControls controls(bus);
    EXPECT_TRUE(sonobrik_osc_update());
    shutdown(sd_bus_get_fd(calls.opened), SHUT_RDWR);
    EXPECT_FALSE(sonobrik_osc_update());
    expect_failure(135, "Connection reset by peer");
    EXPECT_TRUE(sonobrik_osc_update());
    expect_log(G_LOG_LEVEL_WARNING, "The connection to the on-screen controls was lost.");
    EXPECT_EQ(controls.callers().size(), 2U);
}

TEST_F(SonobrikOsc, UnrequestedSignalsAreDropped)
{
    FakeControls controls(bus);
    EXPECT_TRUE(sonobrik_osc_update());
    const std::string name = *controls.callers().begin();
    const size_t open_files = count_open_files();
    for (int i = 0; i < 100; i++) {
        send_signal_with_file(name);
    }
    settle(stranger, name);
    EXPECT_EQ(count_open_files(), open_files);
}

TEST_F(SonobrikOsc, TeardownWithoutAConnectionIsHarmless)
{
    sonobrik_osc_teardown();
    sonobrik_osc_teardown();
    expect_no_log();
}
