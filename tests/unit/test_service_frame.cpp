#include "service_frame.h"

#include <cerrno>
#include <csignal>
#include <cstdint>
#include <cstdio>
#include <cstring>
#include <dlfcn.h>
#include <functional>
#include <glib-unix.h>
#include <gst/gst.h>
#include <gtest/gtest.h>
#include <string>
#include <systemd/sd-daemon.h>

#include "audio_clip.h"
#include "audioclip_dbus.h"
#include "platform/log_redirect.h"
#include "run_tests.h"
#include "sonobrik_events.h"
#include "sonobrik_osc.h"
#include "sonobrik_parameters.h"

/*
 * The whole program runs in a death test. Whatever the frame calls writes "[CALL]" to standard
 * error, a log line "[LEVEL: TEXT]"; the sequence is what a test expects.
 */

/* The linker's option --wrap=main gives the program's own main() this name. */
extern "C" int __real_main(int argc, char **argv);

/* Where this program starts. */
extern "C" int __wrap_main(int argc, char **argv)
{
    return run_tests(argc, argv);
}

struct AudioClip {
};

namespace
{

/* How the surroundings behave, and what they do in the course of things. */
struct Surroundings {
    bool loop_fails = false;
    bool clip_fails = false;
    bool osc_result = true;
    bool parameters_result = true;
    int dbus_result = 0;
    int watchdog_result = 0;
    uint64_t watchdog_usec = 0;
    std::function<void()> on_log_redirect;
    std::function<void()> on_dbus_setup;
    std::function<void()> on_loop_run; /* before it runs */
} surroundings;

AudioClip the_clip;
GSourceFunc quit_handler;
GSourceFunc watchdog_callback;
constexpr guint WATCHDOG_SOURCE = 4711;

void say(const std::string &what)
{
    fprintf(stderr, "[%s]", what.c_str());
}

void log_to_stderr()
{
    g_log_set_default_handler(
        [](const gchar *, GLogLevelFlags level, const gchar *text, gpointer) {
            say(std::to_string(static_cast<int>(level)) + ": " + text);
        },
        nullptr);
}

/* Runs the program as "sonobrik --gst-version". */
void run()
{
    log_to_stderr();
    char program[] = "sonobrik";
    char option[] = "--gst-version";
    char *argv[] = {program, option, nullptr};
    __real_main(2, argv);
    say("returned");
}

std::function<void()> quit_with(gint32 code)
{
    return [code] {
        g_idle_add(
            [](gpointer data) -> gboolean {
                sonobrik_quit_main_loop(GPOINTER_TO_INT(data));
                return G_SOURCE_REMOVE;
            },
            GINT_TO_POINTER(code));
    };
}

/* `text` as a regular expression that matches itself. */
std::string literally(const std::string &text)
{
    std::string expression;
    for (const char c : text) {
        if (strchr("\\^$.|?*+()[]{}", c)) {
            expression += '\\';
        }
        expression += c;
    }
    return expression;
}

const std::string setup_to_player = "[log_redirect sonobrik 24][loop_new][events_setup][signal 2]"
                                    "[signal 15][gst_init 2 --gst-version][clip_ref]";
const std::string setup_to_parameters = setup_to_player + "[osc_setup][parameters_setup]";
const std::string setup = setup_to_parameters + "[dbus_setup][watchdog_enabled 0]";
const std::string teardown_without_player =
    "[dbus_teardown][parameters_teardown][events_teardown][osc_teardown]";
const std::string teardown = "[clip_unref]" + teardown_without_player;

class ServiceFrame : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        surroundings = Surroundings();
    }

    /* The program ends with this status, and everything was called in this order. */
    static void expect_run(int status, const std::string &calls)
    {
        EXPECT_EXIT(run(), ::testing::ExitedWithCode(status), "^" + literally(calls) + "$");
    }
};

using ServiceFrameWatchdog = ServiceFrame;

} // namespace

void log_redirect_to_syslog(const char *identity, int facility)
{
    say(std::string("log_redirect ") + identity + " " + std::to_string(facility));
    if (surroundings.on_log_redirect) {
        surroundings.on_log_redirect();
    }
}

bool sonobrik_events_setup()
{
    say("events_setup");
    return false; /* nobody may care */
}

void sonobrik_events_teardown()
{
    say("events_teardown");
}

AudioClip *audio_clip_ref()
{
    say("clip_ref");
    return surroundings.clip_fails ? nullptr : &the_clip;
}

void audio_clip_unref(AudioClip *clip)
{
    say(clip == &the_clip ? "clip_unref" : "clip_unref of something else");
}

bool sonobrik_osc_setup()
{
    say("osc_setup");
    return surroundings.osc_result;
}

void sonobrik_osc_teardown()
{
    say("osc_teardown");
}

bool sonobrik_parameters_setup()
{
    say("parameters_setup");
    return surroundings.parameters_result;
}

void sonobrik_parameters_teardown()
{
    say("parameters_teardown");
}

int audioclip_dbus_setup(AudioClip *clip)
{
    say(clip == &the_clip ? "dbus_setup" : "dbus_setup with something else");
    if (surroundings.on_dbus_setup) {
        surroundings.on_dbus_setup();
    }
    return surroundings.dbus_result;
}

void audioclip_dbus_teardown()
{
    say("dbus_teardown");
}

/* Calls of the libraries, in place of them or in front of them. */

template <typename Function> Function *library(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

GMainLoop *g_main_loop_new(GMainContext *context, gboolean is_running)
{
    say(context || is_running ? "odd loop" : "loop_new");
    return surroundings.loop_fails
               ? nullptr
               : library<GMainLoop *(GMainContext *, gboolean)>("g_main_loop_new")(context, FALSE);
}

void g_main_loop_run(GMainLoop *loop)
{
    say("loop_run");
    if (surroundings.on_loop_run) {
        surroundings.on_loop_run();
    }
    library<void(GMainLoop *)>("g_main_loop_run")(loop);
}

void g_main_loop_unref(GMainLoop *loop)
{
    say("loop_unref");
    library<void(GMainLoop *)>("g_main_loop_unref")(loop);
}

guint g_unix_signal_add(gint number, GSourceFunc handler, gpointer data)
{
    say("signal " + std::to_string(number));
    quit_handler = handler;
    return library<guint(gint, GSourceFunc, gpointer)>("g_unix_signal_add")(number, handler, data);
}

guint g_timeout_add_seconds_full(gint priority, guint interval, GSourceFunc callback, gpointer data,
                                 GDestroyNotify destroy)
{
    say("timer " + std::to_string(priority) + " " + std::to_string(interval) + " s" +
        (data || destroy ? " with data" : ""));
    watchdog_callback = callback;
    return WATCHDOG_SOURCE;
}

gboolean g_source_remove(guint id)
{
    say("source_remove " + std::to_string(id));
    return TRUE;
}

void gst_init(int *argc, char ***argv)
{
    say("gst_init " + std::to_string(*argc) + " " + (*argv)[1]);
}

int sd_watchdog_enabled(int unset_environment, uint64_t *usec)
{
    say("watchdog_enabled " + std::to_string(unset_environment));
    *usec = surroundings.watchdog_usec;
    return surroundings.watchdog_result;
}

int sd_notify(int unset_environment, const char *state)
{
    say("notify " + std::to_string(unset_environment) + " " + state);
    return -EPIPE; /* nobody may care */
}

TEST_F(ServiceFrame, EndsWith0AfterSigterm)
{
    surroundings.on_loop_run = [] {
        raise(SIGTERM);
    };
    expect_run(0, setup + "[loop_run]" + teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, EndsWith0AfterSigint)
{
    surroundings.on_loop_run = [] {
        raise(SIGINT);
    };
    expect_run(0, setup + "[loop_run]" + teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, EndsWith0AfterASignalDuringSetup)
{
    surroundings.on_dbus_setup = [] {
        raise(SIGTERM);
    };
    expect_run(0, setup + "[loop_run]" + teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, EndsWithTheStatusOfAQuitRequest)
{
    surroundings.on_loop_run = quit_with(75);
    expect_run(75, setup + "[loop_run]" + teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, EndsWith1WithoutAMainLoop)
{
    surroundings.loop_fails = true;
    expect_run(1, "[log_redirect sonobrik 24][loop_new]" + teardown_without_player);
}

TEST_F(ServiceFrame, EndsWith1WithoutAPlayer)
{
    surroundings.clip_fails = true;
    expect_run(1, setup_to_player + "[8: Failed to initialize the audio clip struct.]" +
                      teardown_without_player + "[loop_unref]");
}

TEST_F(ServiceFrame, GoesOnWithoutOnScreenControls)
{
    surroundings.osc_result = false;
    surroundings.on_loop_run = quit_with(0);
    expect_run(0, setup_to_player +
                      "[osc_setup][16: Failed to add features to onscreencontrols.]"
                      "[parameters_setup][dbus_setup][watchdog_enabled 0][loop_run]" +
                      teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, EndsWith1WithoutAClipStore)
{
    surroundings.parameters_result = false;
    expect_run(1, setup_to_parameters + "[8: Failed to initialize sonobrik parameters.]" +
                      teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, EndsWith1WithoutABusService)
{
    surroundings.dbus_result = -1;
    expect_run(1, setup_to_parameters +
                      "[dbus_setup][8: Failed to setup the audioclip dbus service.]" + teardown +
                      "[loop_unref]");
}

TEST_F(ServiceFrame, TakesAPositiveResultOfTheBusServiceForSuccess)
{
    surroundings.dbus_result = 1;
    surroundings.on_loop_run = quit_with(0);
    expect_run(0, setup + "[loop_run]" + teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, KeepsTheStatusOfAQuitRequestBeforeTheLoopRuns)
{
    surroundings.dbus_result = -1;
    surroundings.on_dbus_setup = [] {
        sonobrik_quit_main_loop(75);
    };
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(75), "");
}

TEST_F(ServiceFrame, KeepsTheStatusOfAQuitRequestBeforeThereIsALoop)
{
    surroundings.loop_fails = true;
    surroundings.on_log_redirect = [] {
        sonobrik_quit_main_loop(75);
    };
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(75), "");
}

TEST_F(ServiceFrame, ObeysTheLastQuitRequest)
{
    surroundings.on_dbus_setup = [] {
        sonobrik_quit_main_loop(75);
    };
    surroundings.on_loop_run = quit_with(3);
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(3), "");
}

TEST_F(ServiceFrame, AnswersEachSignalOnce)
{
    surroundings.on_dbus_setup = [] {
        say(quit_handler(nullptr) == G_SOURCE_REMOVE ? "removed" : "kept");
    };
    surroundings.dbus_result = -1;
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "\\[removed\\]");
}

TEST_F(ServiceFrameWatchdog, IsFedTwiceInItsPeriod)
{
    surroundings.watchdog_result = 1;
    surroundings.watchdog_usec = 30 * G_USEC_PER_SEC;
    surroundings.on_loop_run = quit_with(0);
    expect_run(0, setup + "[timer -100 15 s][loop_run]" + teardown +
                      "[source_remove 4711][loop_unref]");
}

TEST_F(ServiceFrameWatchdog, IsFedEachTime)
{
    surroundings.watchdog_result = 1;
    surroundings.watchdog_usec = 30 * G_USEC_PER_SEC;
    surroundings.on_loop_run = [] {
        for (int i = 0; i < 3; i++) {
            say(watchdog_callback(nullptr) == G_SOURCE_CONTINUE ? "goes on" : "ends");
        }
        quit_with(0)();
    };
    expect_run(0, setup +
                      "[timer -100 15 s][loop_run]"
                      "[notify 0 WATCHDOG=1][goes on][notify 0 WATCHDOG=1][goes on]"
                      "[notify 0 WATCHDOG=1][goes on]" +
                      teardown + "[source_remove 4711][loop_unref]");
}

TEST_F(ServiceFrameWatchdog, HasAnIntervalOf0BelowTwoSeconds)
{
    surroundings.watchdog_result = 1;
    surroundings.watchdog_usec = 1500000;
    surroundings.on_loop_run = quit_with(0);
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "\\[timer -100 0 s\\]");
}

TEST_F(ServiceFrameWatchdog, IsRoundedDownTwice)
{
    surroundings.watchdog_result = 1;
    surroundings.watchdog_usec = 7999999;
    surroundings.on_loop_run = quit_with(0);
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "\\[timer -100 3 s\\]");
}

TEST_F(ServiceFrameWatchdog, CutsThePeriodTo32BitsOfSeconds)
{
    surroundings.watchdog_result = 1;
    surroundings.watchdog_usec = ((uint64_t{1} << 32) + 6) * G_USEC_PER_SEC;
    surroundings.on_loop_run = quit_with(0);
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "\\[timer -100 3 s\\]");
}

TEST_F(ServiceFrameWatchdog, HalvesThePeriodWithoutASign)
{
    surroundings.watchdog_result = 1;
    surroundings.watchdog_usec = uint64_t{UINT32_MAX} * G_USEC_PER_SEC;
    surroundings.on_loop_run = quit_with(0);
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "\\[timer -100 2147483647 s\\]");
}

TEST_F(ServiceFrameWatchdog, IsNotNecessary)
{
    surroundings.watchdog_usec = 30 * G_USEC_PER_SEC;
    surroundings.on_loop_run = quit_with(0);
    expect_run(0, setup + "[loop_run]" + teardown + "[loop_unref]");
}

TEST_F(ServiceFrameWatchdog, MayBeUnknown)
{
    surroundings.watchdog_result = -EINVAL;
    surroundings.on_loop_run = quit_with(0);
    expect_run(0, setup +
                      "[16: Failed checking if watchdog is enabled, error code -22.]"
                      "[16: Failed to setup watchdog.][loop_run]" +
                      teardown + "[loop_unref]");
}
