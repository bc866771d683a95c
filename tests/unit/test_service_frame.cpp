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
#include "clip_warm_up.h"
#include "platform/log_redirect.h"
#include "run_tests.h"
#include "sonobrik_events.h"
#include "sonobrik_osc.h"
#include "sonobrik_parameters.h"

/*
 * Each test runs the whole program in a child process (a death test). Fakes write each call as
 * "[CALL]" to standard error, and each log line as "[LEVEL: TEXT]". A test expects an exact
 * sequence.
 */

/* The linker's option --wrap=main gives the program's own main() this name. */
extern "C" int __real_main(int argc, char **argv);

/* The entry point of the test program. */
extern "C" int __wrap_main(int argc, char **argv)
{
    return run_tests(argc, argv);
}

struct AudioClip {
};

namespace
{

/* The results of the fakes, and hooks that run in them. */
struct Fakes {
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
} fakes;

AudioClip the_clip;
GSourceFunc quit_handler;
GSourceFunc watchdog_callback;
constexpr guint WATCHDOG_SOURCE = 4711;

void record(const std::string &what)
{
    fprintf(stderr, "[%s]", what.c_str());
}

void log_to_stderr()
{
    g_log_set_default_handler(
        [](const gchar *, GLogLevelFlags level, const gchar *text, gpointer) {
            record(std::to_string(static_cast<int>(level)) + ": " + text);
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
    record("returned");
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

/* Returns a regular expression that matches exactly `text`. */
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
const std::string loop_run = "[warm_up_start][loop_run]";
const std::string teardown_after_player =
    "[dbus_teardown][parameters_teardown][events_teardown][osc_teardown]";
const std::string teardown_without_player = "[warm_up_stop]" + teardown_after_player;
const std::string teardown = "[warm_up_stop][clip_unref]" + teardown_after_player;

class ServiceFrame : public ::testing::Test
{
  protected:
    void SetUp() override
    {
        fakes = Fakes();
    }

    /* Expects that the program exits with this status after exactly these calls. */
    static void expect_run(int status, const std::string &calls)
    {
        EXPECT_EXIT(run(), ::testing::ExitedWithCode(status), "^" + literally(calls) + "$");
    }
};

using ServiceFrameWatchdog = ServiceFrame;

} // namespace

void log_redirect_to_syslog(const char *identity, int facility)
{
    record(std::string("log_redirect ") + identity + " " + std::to_string(facility));
    if (fakes.on_log_redirect) {
        fakes.on_log_redirect();
    }
}

bool sonobrik_events_setup()
{
    record("events_setup");
    return false; /* the frame ignores it */
}

void sonobrik_events_teardown()
{
    record("events_teardown");
}

AudioClip *audio_clip_ref()
{
    record("clip_ref");
    return fakes.clip_fails ? nullptr : &the_clip;
}

void audio_clip_unref(AudioClip *clip)
{
    record(clip == &the_clip ? "clip_unref" : "clip_unref of something else");
}

bool sonobrik_osc_setup()
{
    record("osc_setup");
    return fakes.osc_result;
}

void sonobrik_osc_teardown()
{
    record("osc_teardown");
}

bool sonobrik_parameters_setup()
{
    record("parameters_setup");
    return fakes.parameters_result;
}

void sonobrik_parameters_teardown()
{
    record("parameters_teardown");
}

int audioclip_dbus_setup(AudioClip *clip)
{
    record(clip == &the_clip ? "dbus_setup" : "dbus_setup with something else");
    if (fakes.on_dbus_setup) {
        fakes.on_dbus_setup();
    }
    return fakes.dbus_result;
}

void audioclip_dbus_teardown()
{
    record("dbus_teardown");
}

void clip_warm_up_start()
{
    record("warm_up_start");
}

void clip_warm_up_stop()
{
    record("warm_up_stop");
}

/* Fakes and wrappers of library functions. */

template <typename Function> Function *library(const char *name)
{
    return reinterpret_cast<Function *>(dlsym(RTLD_NEXT, name));
}

GMainLoop *g_main_loop_new(GMainContext *context, gboolean is_running)
{
    record(context || is_running ? "odd loop" : "loop_new");
    return fakes.loop_fails
               ? nullptr
               : library<GMainLoop *(GMainContext *, gboolean)>("g_main_loop_new")(context, FALSE);
}

void g_main_loop_run(GMainLoop *loop)
{
    record("loop_run");
    if (fakes.on_loop_run) {
        fakes.on_loop_run();
    }
    library<void(GMainLoop *)>("g_main_loop_run")(loop);
}

void g_main_loop_unref(GMainLoop *loop)
{
    record("loop_unref");
    library<void(GMainLoop *)>("g_main_loop_unref")(loop);
}

guint g_unix_signal_add(gint number, GSourceFunc handler, gpointer data)
{
    record("signal " + std::to_string(number));
    quit_handler = handler;
    return library<guint(gint, GSourceFunc, gpointer)>("g_unix_signal_add")(number, handler, data);
}

guint g_timeout_add_seconds_full(gint priority, guint interval, GSourceFunc callback, gpointer data,
                                 GDestroyNotify destroy)
{
    record("timer " + std::to_string(priority) + " " + std::to_string(interval) + " s" +
           (data || destroy ? " with data" : ""));
    watchdog_callback = callback;
    return WATCHDOG_SOURCE;
}

gboolean g_source_remove(guint id)
{
    record("source_remove " + std::to_string(id));
    return TRUE;
}

void gst_init(int *argc, char ***argv)
{
    record("gst_init " + std::to_string(*argc) + " " + (*argv)[1]);
}

int sd_watchdog_enabled(int unset_environment, uint64_t *usec)
{
    record("watchdog_enabled " + std::to_string(unset_environment));
    *usec = fakes.watchdog_usec;
    return fakes.watchdog_result;
}

int sd_notify(int unset_environment, const char *state)
{
    record("notify " + std::to_string(unset_environment) + " " + state);
    return -EPIPE; /* the frame ignores it */
}

TEST_F(ServiceFrame, EndsWith0AfterSigterm)
{
    fakes.on_loop_run = [] {
        raise(SIGTERM);
    };
    expect_run(0, setup + loop_run + teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, EndsWith0AfterSigint)
{
    fakes.on_loop_run = [] {
        raise(SIGINT);
    };
    expect_run(0, setup + loop_run + teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, EndsWith0AfterASignalDuringSetup)
{
    fakes.on_dbus_setup = [] {
        raise(SIGTERM);
    };
    expect_run(0, setup + loop_run + teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, EndsWithTheStatusOfAQuitRequest)
{
    fakes.on_loop_run = quit_with(75);
    expect_run(75, setup + loop_run + teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, EndsWith1WithoutAMainLoop)
{
    fakes.loop_fails = true;
    expect_run(1, "[log_redirect sonobrik 24][loop_new]" + teardown_without_player);
}

TEST_F(ServiceFrame, EndsWith1WithoutAPlayer)
{
    fakes.clip_fails = true;
    expect_run(1, setup_to_player + "[8: Failed to initialize the audio clip struct.]" +
                      teardown_without_player + "[loop_unref]");
}

TEST_F(ServiceFrame, ContinuesWithoutOnScreenControls)
{
    fakes.osc_result = false;
    fakes.on_loop_run = quit_with(0);
    expect_run(0, setup_to_player +
                      "[osc_setup][16: Failed to add features to onscreencontrols.]"
                      "[parameters_setup][dbus_setup][watchdog_enabled 0]" +
                      loop_run + teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, EndsWith1WithoutAClipStore)
{
    fakes.parameters_result = false;
    expect_run(1, setup_to_parameters + "[8: Failed to initialize sonobrik parameters.]" +
                      teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, EndsWith1WithoutABusService)
{
    fakes.dbus_result = -1;
    expect_run(1, setup_to_parameters +
                      "[dbus_setup][8: Failed to setup the audioclip dbus service.]" + teardown +
                      "[loop_unref]");
}

TEST_F(ServiceFrame, TreatsAPositiveBusServiceResultAsSuccess)
{
    fakes.dbus_result = 1;
    fakes.on_loop_run = quit_with(0);
    expect_run(0, setup + loop_run + teardown + "[loop_unref]");
}

TEST_F(ServiceFrame, KeepsTheStatusOfAQuitRequestBeforeTheLoopRuns)
{
    fakes.dbus_result = -1;
    fakes.on_dbus_setup = [] {
        sonobrik_quit_main_loop(75);
    };
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(75), "");
}

TEST_F(ServiceFrame, KeepsTheStatusOfAQuitRequestBeforeThereIsALoop)
{
    fakes.loop_fails = true;
    fakes.on_log_redirect = [] {
        sonobrik_quit_main_loop(75);
    };
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(75), "");
}

TEST_F(ServiceFrame, ObeysTheLastQuitRequest)
{
    fakes.on_dbus_setup = [] {
        sonobrik_quit_main_loop(75);
    };
    fakes.on_loop_run = quit_with(3);
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(3), "");
}

TEST_F(ServiceFrame, HandlesEachSignalOnce)
{
    fakes.on_dbus_setup = [] {
        record(quit_handler(nullptr) == G_SOURCE_REMOVE ? "removed" : "kept");
    };
    fakes.dbus_result = -1;
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "\\[removed\\]");
}

TEST_F(ServiceFrameWatchdog, IsPingedAtHalfItsInterval)
{
    fakes.watchdog_result = 1;
    fakes.watchdog_usec = 30 * G_USEC_PER_SEC;
    fakes.on_loop_run = quit_with(0);
    expect_run(0, setup + "[timer -100 15 s]" + loop_run + teardown +
                      "[source_remove 4711][loop_unref]");
}

TEST_F(ServiceFrameWatchdog, IsPingedRepeatedly)
{
    fakes.watchdog_result = 1;
    fakes.watchdog_usec = 30 * G_USEC_PER_SEC;
    fakes.on_loop_run = [] {
        for (int i = 0; i < 3; i++) {
            record(watchdog_callback(nullptr) == G_SOURCE_CONTINUE ? "goes on" : "ends");
        }
        quit_with(0)();
    };
    expect_run(0, setup + "[timer -100 15 s]" + loop_run +
                      "[notify 0 WATCHDOG=1][goes on][notify 0 WATCHDOG=1][goes on]"
                      "[notify 0 WATCHDOG=1][goes on]" +
                      teardown + "[source_remove 4711][loop_unref]");
}

TEST_F(ServiceFrameWatchdog, IsPingedDuringLongWorkButNotTooOften)
{
    fakes.watchdog_result = 1;
    fakes.watchdog_usec = 30 * G_USEC_PER_SEC;
    fakes.on_loop_run = [] {
        sonobrik_feed_watchdog();
        sonobrik_feed_watchdog();
        record("a file");
        g_usleep(110000);
        sonobrik_feed_watchdog();
        quit_with(0)();
    };
    expect_run(0, setup + "[timer -100 15 s]" + loop_run +
                      "[notify 0 WATCHDOG=1][a file][notify 0 WATCHDOG=1]" + teardown +
                      "[source_remove 4711][loop_unref]");
}

TEST_F(ServiceFrameWatchdog, IsNotPingedDuringLongWorkIfItIsDisabled)
{
    fakes.on_dbus_setup = fakes.on_loop_run = [] {
        sonobrik_feed_watchdog();
        quit_with(0)();
    };
    expect_run(0, setup + loop_run + teardown + "[loop_unref]");
}

TEST_F(ServiceFrameWatchdog, HasAnIntervalOf0BelowTwoSeconds)
{
    fakes.watchdog_result = 1;
    fakes.watchdog_usec = 1500000;
    fakes.on_loop_run = quit_with(0);
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "\\[timer -100 0 s\\]");
}

TEST_F(ServiceFrameWatchdog, IsRoundedDownTwice)
{
    fakes.watchdog_result = 1;
    fakes.watchdog_usec = 7999999;
    fakes.on_loop_run = quit_with(0);
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "\\[timer -100 3 s\\]");
}

TEST_F(ServiceFrameWatchdog, TruncatesTheSecondsTo32Bits)
{
    fakes.watchdog_result = 1;
    fakes.watchdog_usec = ((uint64_t{1} << 32) + 6) * G_USEC_PER_SEC;
    fakes.on_loop_run = quit_with(0);
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "\\[timer -100 3 s\\]");
}

TEST_F(ServiceFrameWatchdog, HalvesThePeriodWithoutASign)
{
    fakes.watchdog_result = 1;
    fakes.watchdog_usec = uint64_t{UINT32_MAX} * G_USEC_PER_SEC;
    fakes.on_loop_run = quit_with(0);
    EXPECT_EXIT(run(), ::testing::ExitedWithCode(0), "\\[timer -100 2147483647 s\\]");
}

TEST_F(ServiceFrameWatchdog, MayBeDisabled)
{
    fakes.watchdog_usec = 30 * G_USEC_PER_SEC;
    fakes.on_loop_run = quit_with(0);
    expect_run(0, setup + loop_run + teardown + "[loop_unref]");
}

TEST_F(ServiceFrameWatchdog, MayFailToBeRead)
{
    fakes.watchdog_result = -EINVAL;
    fakes.on_loop_run = quit_with(0);
    expect_run(0, setup +
                      "[16: Failed checking if watchdog is enabled, error code -22.]"
                      "[16: Failed to setup watchdog.]" +
                      loop_run + teardown + "[loop_unref]");
}
