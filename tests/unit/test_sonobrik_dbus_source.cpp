#include "sonobrik_dbus_source.h"

#include <atomic>
#include <cerrno>
#include <functional>
#include <glib-unix.h>
#include <gtest/gtest.h>
#include <memory>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

#include "failing_calls.h"

namespace
{

constexpr int PATIENCE_MS = 10000;
constexpr int ROUNDS = 2000;

/* An event counter: one side rings it, the other waits for it. */
class Doorbell
{
  public:
    Doorbell() : fd(eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC)) {}
    ~Doorbell()
    {
        close(fd);
    }
    Doorbell(const Doorbell &) = delete;
    Doorbell &operator=(const Doorbell &) = delete;

    void ring() const
    {
        eventfd_write(fd, 1);
    }

    void silence() const
    {
        eventfd_t rings = 0;
        eventfd_read(fd, &rings);
    }

    /* Returns false on time-out. */
    bool wait() const
    {
        struct pollfd rung = {.fd = fd, .events = POLLIN, .revents = 0};
        const bool has_rung = poll(&rung, 1, PATIENCE_MS) == 1;
        silence();
        return has_rung;
    }

    int fd;
};

gboolean call(gpointer function)
{
    return (*static_cast<std::function<bool()> *>(function))();
}

/*
 * Runs `loop` until it is quit. Nothing else wakes it, so a lost wake-up makes it run into the
 * deadline. Returns false in that case.
 */
bool run_undisturbed(GMainLoop *loop)
{
    bool in_time = true;
    std::function<bool()> give_up = [&] {
        in_time = false;
        g_main_loop_quit(loop);
        return G_SOURCE_CONTINUE;
    };
    const guint deadline = g_timeout_add(PATIENCE_MS, call, &give_up);
    g_main_loop_run(loop);
    g_source_remove(deadline);
    return in_time;
}

/* Has a source that runs the fixture's sd-event loop. */
class SourceTest : public ::testing::Test
{
  protected:
    SourceTest()
    {
        sd_event_new(&event);
        dbus_source = sonobrik_dbus_source_new(event);
        source = &dbus_source->source;
    }

    ~SourceTest() override
    {
        g_source_destroy(source);
        g_source_unref(source);
        sd_event_unref(event);
    }

    /* Runs `handler` whenever `bell` rings, while the event loop lives. */
    sd_event_source *listen(const Doorbell &bell, std::function<int()> *handler)
    {
        const auto run = [](sd_event_source *, int, uint32_t, void *function) {
            return (*static_cast<std::function<int()> *>(function))();
        };
        sd_event_source *added = nullptr;
        EXPECT_GE(sd_event_add_io(event, &added, bell.fd, EPOLLIN, run, handler), 0);
        EXPECT_GE(sd_event_source_set_floating(added, true), 0);
        sd_event_source_unref(added);
        return added;
    }

    bool prepare()
    {
        gint timeout = -1;
        return source->source_funcs->prepare(source, &timeout);
    }

    bool check()
    {
        return source->source_funcs->check(source);
    }

    bool dispatch()
    {
        return source->source_funcs->dispatch(source, nullptr, nullptr);
    }

    sd_event *event = nullptr;
    sonobrik_dbus_source *dbus_source;
    GSource *source;

    Doorbell bell;
    int heard = 0;
    std::function<int()> hear = [this] {
        bell.silence();
        heard++;
        return 0;
    };
};

} // namespace

TEST_F(SourceTest, PollsTheDescriptorOfTheEventLoop)
{
    EXPECT_EQ(dbus_source->event, event);
    EXPECT_EQ(dbus_source->poll_fd.fd, sd_event_get_fd(event));
    EXPECT_EQ(dbus_source->poll_fd.events, 25);
    EXPECT_EQ(g_source_get_priority(source), G_PRIORITY_DEFAULT);
}

TEST_F(SourceTest, ReleasesItsReferenceToTheEventLoop)
{
    static bool is_gone;
    is_gone = false;
    hear = [] {
        return 0;
    };
    sd_event_source_set_destroy_callback(listen(bell, &hear), [](void *) { is_gone = true; });

    event = sd_event_unref(event);
    EXPECT_FALSE(is_gone);
    g_source_ref(source);
    g_source_destroy(source);
    g_source_unref(source);
    EXPECT_FALSE(is_gone);
    g_source_unref(source);
    EXPECT_TRUE(is_gone);

    sd_event_new(&event);
    dbus_source = sonobrik_dbus_source_new(event);
    source = &dbus_source->source;
}

TEST_F(SourceTest, PreparesWithoutAnEventWhileNothingIsPending)
{
    listen(bell, &hear);
    EXPECT_FALSE(prepare());
    EXPECT_FALSE(check());
}

TEST_F(SourceTest, FindsThePendingEventWhenItPrepares)
{
    listen(bell, &hear);
    sd_event_source *deferred = nullptr;
    ASSERT_GE(sd_event_add_defer(
                  event, &deferred, [](sd_event_source *, void *) { return 0; }, nullptr),
              0);
    EXPECT_TRUE(prepare());
    EXPECT_TRUE(dispatch());
    sd_event_source_unref(deferred);
}

TEST_F(SourceTest, FindsTheEventThatArrivedWhenItChecks)
{
    listen(bell, &hear);
    EXPECT_FALSE(prepare());
    bell.ring();
    EXPECT_TRUE(check());
    EXPECT_EQ(heard, 0);
    EXPECT_TRUE(dispatch());
    EXPECT_EQ(heard, 1);
}

TEST_F(SourceTest, DoesNotChangeTheTimeOut)
{
    listen(bell, &hear);
    sd_event_source *timer = nullptr;
    const auto nothing = [](sd_event_source *, uint64_t, void *) {
        return 0;
    };
    ASSERT_GE(sd_event_add_time_relative(event, &timer, CLOCK_MONOTONIC, G_USEC_PER_SEC, 0, nothing,
                                         nullptr),
              0);
    gint timeout = 4711;
    EXPECT_FALSE(source->source_funcs->prepare(source, &timeout)); /* not prepared before */
    EXPECT_EQ(timeout, 4711);
    EXPECT_FALSE(source->source_funcs->prepare(source, &timeout)); /* armed */
    EXPECT_EQ(timeout, 4711);
    bell.ring();
    EXPECT_TRUE(source->source_funcs->prepare(source, &timeout));
    EXPECT_EQ(timeout, 4711);
    dispatch();
    sd_event_source_unref(timer);
}

/* Preparing twice, which GLib does when it skips the check. */

TEST_F(SourceTest, SecondPrepareWithoutACheckFindsNoEvent)
{
    listen(bell, &hear);
    EXPECT_FALSE(prepare());
    EXPECT_FALSE(prepare());
    EXPECT_FALSE(prepare());
    EXPECT_EQ(sd_event_get_state(event), SD_EVENT_ARMED);
    EXPECT_FALSE(check());
}

TEST_F(SourceTest, SecondPrepareFindsWhatHasArrivedSince)
{
    listen(bell, &hear);
    EXPECT_FALSE(prepare());
    bell.ring();
    EXPECT_TRUE(prepare());
    EXPECT_TRUE(dispatch());
    EXPECT_EQ(heard, 1);
}

TEST_F(SourceTest, EventAfterTheSecondPrepareIsFoundByTheCheck)
{
    listen(bell, &hear);
    EXPECT_FALSE(prepare());
    EXPECT_FALSE(prepare());
    bell.ring();
    EXPECT_TRUE(check());
    EXPECT_TRUE(dispatch());
    EXPECT_EQ(heard, 1);
}

TEST_F(SourceTest, SecondPreparePreparesTheEventLoopsSourcesAgain)
{
    static int looked;
    looked = 0;
    const auto look = [](sd_event_source *, void *) {
        looked++;
        return 0;
    };
    /* A connection uses this callback to ask for writability when it has messages to send. */
    ASSERT_GE(sd_event_source_set_prepare(listen(bell, &hear), look), 0);
    prepare();
    EXPECT_EQ(looked, 1);
    prepare();
    EXPECT_EQ(looked, 2);
}

TEST_F(SourceTest, CheckWithoutPrepareFindsNoEvent)
{
    listen(bell, &hear);
    bell.ring();
    EXPECT_FALSE(check());
    EXPECT_TRUE(prepare() || check());
    EXPECT_TRUE(dispatch());
    EXPECT_EQ(heard, 1);
}

/* The end of the source. */

TEST_F(SourceTest, EndOfTheEventLoopRemovesTheSource)
{
    g_source_attach(source, nullptr);
    sd_event_exit(event, 0);
    for (int i = 0; i < 10 && !g_source_is_destroyed(source); i++) {
        g_main_context_iteration(nullptr, FALSE);
    }
    EXPECT_TRUE(g_source_is_destroyed(source));
    EXPECT_EQ(sd_event_get_state(event), SD_EVENT_FINISHED);
}

TEST_F(SourceTest, EventLoopThatHasEndedHasNoEvents)
{
    listen(bell, &hear);
    sd_event_exit(event, 0);
    EXPECT_TRUE(prepare());
    EXPECT_FALSE(dispatch());
    bell.ring();
    EXPECT_FALSE(prepare());
    EXPECT_FALSE(check());
    EXPECT_FALSE(dispatch());
    EXPECT_EQ(heard, 0);
}

TEST_F(SourceTest, OnlyADispatchResultAboveZeroKeepsTheSource)
{
    FailingCalls calls;
    calls.fail("sd_event_dispatch", 0);
    EXPECT_FALSE(dispatch());
    calls.fail("sd_event_dispatch", -EIO);
    EXPECT_FALSE(dispatch());
    calls.fail("sd_event_dispatch", 1);
    EXPECT_TRUE(dispatch());
}

TEST_F(SourceTest, EventWhoseHandlerFailsKeepsTheSource)
{
    std::function<int()> fail = [this] {
        bell.silence();
        return -EIO;
    };
    listen(bell, &fail);
    g_source_attach(source, nullptr);
    bell.ring();
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    EXPECT_FALSE(g_source_is_destroyed(source));
}

/* A main context with other sources. */

TEST_F(SourceTest, NoEventIsLostWhileAnotherThreadChangesTheContext)
{
    g_source_attach(source, nullptr);
    const std::unique_ptr<GMainLoop, void (*)(GMainLoop *)> loop(g_main_loop_new(nullptr, FALSE),
                                                                 g_main_loop_unref);
    Doorbell answer;
    hear = [&] {
        bell.silence();
        heard++;
        answer.ring();
        return 0;
    };
    listen(bell, &hear);

    std::atomic<bool> is_over = false;
    /* Adding or removing a descriptor makes GLib drop its poll results and prepare again. */
    std::thread churn([&] {
        Doorbell silent;
        while (!is_over) {
            GSource *passing = g_unix_fd_source_new(silent.fd, G_IO_IN);
            g_source_attach(passing, nullptr);
            g_source_destroy(passing);
            g_source_unref(passing);
        }
    });
    std::thread visitor([&] {
        for (int i = 0; i < ROUNDS; i++) {
            bell.ring();
            if (!answer.wait()) {
                break;
            }
        }
        is_over = true;
        g_main_loop_quit(loop.get());
    });
    EXPECT_TRUE(run_undisturbed(loop.get()));
    is_over = true;
    visitor.join();
    churn.join();
    EXPECT_EQ(heard, ROUNDS);
    EXPECT_FALSE(g_source_is_destroyed(source));
}

TEST_F(SourceTest, EventIsHandledAfterASourceOfHigherPriority)
{
    g_source_attach(source, nullptr);
    listen(bell, &hear);

    /* Becomes ready only in its check, so ours is prepared each time but never checked. */
    Doorbell urgent;
    int turns = 0;
    std::function<bool()> take_turn = [&] {
        if (++turns == 50) {
            urgent.silence();
        }
        return G_SOURCE_CONTINUE;
    };
    const auto serve = [](gint, GIOCondition, gpointer function) {
        return call(function);
    };
    const guint id =
        g_unix_fd_add_full(G_PRIORITY_HIGH, urgent.fd, G_IO_IN, serve, &take_turn, nullptr);
    urgent.ring();
    g_main_context_iteration(nullptr, FALSE);
    bell.ring();
    for (int i = 0; i < 48; i++) {
        g_main_context_iteration(nullptr, FALSE);
    }
    EXPECT_EQ(heard, 0);
    while (g_main_context_iteration(nullptr, FALSE)) {
    }
    EXPECT_EQ(turns, 50);
    EXPECT_EQ(heard, 1);
    EXPECT_FALSE(g_source_is_destroyed(source));
    g_source_remove(id);
}

/* Turns of the loop. */

namespace
{

int ready_descriptors;

gint count_ready(GPollFD *descriptors, guint count, gint timeout)
{
    const gint ready = g_poll(descriptors, count, timeout);
    ready_descriptors += ready;
    return ready;
}

} // namespace

/* GLib would wake itself up if it took the source's descriptor out of its poll set. */
TEST_F(SourceTest, DispatchDoesNotWakeTheLoop)
{
    g_autoptr(GMainContext) context = g_main_context_new();
    g_main_context_set_poll_func(context, count_ready);
    listen(bell, &hear);
    g_source_attach(source, context);
    bell.ring();
    while (heard == 0) {
        g_main_context_iteration(context, TRUE);
    }
    ready_descriptors = 0;
    g_main_context_iteration(context, FALSE);
    EXPECT_EQ(ready_descriptors, 0);
    EXPECT_EQ(heard, 1);
}

TEST_F(SourceTest, LoopInsideADispatchDoesNotDispatchTheSourceAgain)
{
    g_autoptr(GMainContext) context = g_main_context_new();
    std::function<int()> run_inner_loop = [&] {
        heard++;
        g_main_context_iteration(context, FALSE);
        bell.silence();
        return 0;
    };
    listen(bell, &run_inner_loop);
    g_source_attach(source, context);
    bell.ring();
    while (heard == 0) {
        g_main_context_iteration(context, TRUE);
    }
    EXPECT_EQ(heard, 1);
    bell.ring();
    while (heard == 1) {
        g_main_context_iteration(context, TRUE);
    }
    EXPECT_EQ(heard, 2);
}
