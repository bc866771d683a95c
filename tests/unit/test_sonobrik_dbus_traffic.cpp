/* Tests a connection in a main context that is busy with other sources. */

#include <atomic>
#include <functional>
#include <glib-unix.h>
#include <poll.h>
#include <sys/eventfd.h>
#include <thread>
#include <unistd.h>

#include "private_bus.h"
#include "sonobrik_dbus.h"
#include "sonobrik_dbus_source.h"

namespace
{

constexpr const char *SERVICE = "com.vesk.Test";
constexpr const char *OBJECT = "/com/vesk/Test";
constexpr const char *INTERFACE = "com.vesk.Test";

constexpr int PATIENCE_MS = 10000;
constexpr uint64_t PATIENCE_USEC = PATIENCE_MS * UINT64_C(1000);
constexpr int ROUNDS = 500;

enum class Wait { UNCHANGED, NOT_AT_ALL };

/*
 * Runs once, the next time that the default main context has prepared its sources and is about to
 * poll. Returns how long to wait.
 */
std::function<Wait()> before_the_wait;

gint poll_after_task(GPollFD *fds, guint count, gint timeout)
{
    if (before_the_wait && timeout != 0 &&
        std::exchange(before_the_wait, nullptr)() == Wait::NOT_AT_ALL) {
        timeout = 0;
    }
    return g_poll(fds, count, timeout);
}

class TrafficTest : public LogTest
{
  protected:
    TrafficTest() : conn(sonobrik_dbus_setup(SERVICE)), loop(g_main_loop_new(nullptr, FALSE))
    {
        EXPECT_NE(conn, nullptr);
        EXPECT_GE(sonobrik_dbus_add_vtable(conn, OBJECT, INTERFACE, table, this), 0);
    }

    ~TrafficTest() override
    {
        sonobrik_dbus_teardown(conn);
        g_free(conn);
        g_main_loop_unref(loop);
        close(bell);
    }

    /*
     * Runs the main loop until it is quit. Nothing else wakes it, so a lost wake-up makes it run
     * into the deadline. Returns false in that case.
     */
    bool run_undisturbed()
    {
        const auto give_up = [](gpointer test) -> gboolean {
            static_cast<TrafficTest *>(test)->in_time = false;
            g_main_loop_quit(static_cast<TrafficTest *>(test)->loop);
            return G_SOURCE_CONTINUE;
        };
        const guint deadline = g_timeout_add(PATIENCE_MS, give_up, this);
        g_main_loop_run(loop);
        g_source_remove(deadline);
        return in_time;
    }

    /* Runs `ring` each time the bell rings, until the returned source is removed. */
    guint listen_to_bell(int priority)
    {
        const auto run = [](gint fd, GIOCondition, gpointer function) -> gboolean {
            eventfd_t rings = 0;
            eventfd_read(fd, &rings);
            (*static_cast<std::function<void()> *>(function))();
            return G_SOURCE_CONTINUE;
        };
        return g_unix_fd_add_full(priority, bell, G_IO_IN, run, &ring, nullptr);
    }

    /* Makes `rounds` calls in a row on another thread, then quits the main loop. */
    std::thread visit(int rounds, const std::function<void()> &before_each)
    {
        return std::thread([this, rounds, before_each] {
            sd_bus *visitor = nullptr;
            EXPECT_GE(sd_bus_open_system(&visitor), 0);
            EXPECT_GE(sd_bus_set_method_call_timeout(visitor, PATIENCE_USEC), 0);
            while (answers < rounds) {
                before_each();
                const int r = sd_bus_call_method(visitor, SERVICE, OBJECT, INTERFACE, "Ask",
                                                 nullptr, nullptr, "");
                if (r < 0) {
                    ADD_FAILURE() << "no answer: " << g_strerror(-r);
                    break;
                }
                answers++;
            }
            sd_bus_flush_close_unref(visitor);
            g_main_loop_quit(loop);
        });
    }

    /* Fills the socket of a frozen bus, queues more signals, and queues the held reply last. */
    void flood()
    {
        const std::string ballast(50000, 'x');
        bus.freeze();
        uint64_t queued = 0;
        while (queued < 10) {
            ASSERT_GE(
                sd_bus_emit_signal(conn->bus, OBJECT, INTERFACE, "Said", "s", ballast.c_str()), 0);
            ASSERT_GE(sd_bus_get_n_queued_write(conn->bus, &queued), 0);
            said++;
        }
        ASSERT_GE(sd_bus_reply_method_return(held, "s", "at last"), 0);
        held = sd_bus_message_unref(held);
        before_the_wait = [this] {
            bus.thaw();
            return Wait::UNCHANGED;
        };
    }

    /* Lets a peer's call be held, then runs the flood in a source of `priority`. */
    void flood_at_priority(int priority)
    {
        flood_priority = priority;
        g_main_context_set_poll_func(nullptr, poll_after_task);

        int heard = 0;
        std::atomic<bool> is_answered = false;
        std::thread listener([&] {
            sd_bus *peer = nullptr;
            EXPECT_GE(sd_bus_open_system(&peer), 0);
            const auto hear = [](sd_bus_message *, void *count, sd_bus_error *) {
                ++*static_cast<int *>(count);
                return 0;
            };
            const auto take_answer = [](sd_bus_message *, void *answered, sd_bus_error *) {
                *static_cast<std::atomic<bool> *>(answered) = true;
                return 0;
            };
            EXPECT_GE(sd_bus_add_match(peer, nullptr, "member='Said'", hear, &heard), 0);
            EXPECT_GE(sd_bus_call_method_async(peer, nullptr, SERVICE, OBJECT, INTERFACE, "Hold",
                                               take_answer, &is_answered, ""),
                      0);
            int r = 1;
            while (r >= 0 && !is_answered && in_time) {
                r = sd_bus_process(peer, nullptr);
                if (r == 0) {
                    r = sd_bus_wait(peer, G_USEC_PER_SEC / 10);
                }
            }
            sd_bus_flush_close_unref(peer);
            g_main_loop_quit(loop);
        });
        EXPECT_TRUE(run_undisturbed()) << "something stayed in the queue";
        listener.join();
        EXPECT_TRUE(is_answered);
        EXPECT_EQ(heard, said);
        EXPECT_GT(said, 10);

        g_main_context_set_poll_func(nullptr, nullptr);
    }

    PrivateBus bus;
    sonobrik_dbus *conn;
    GMainLoop *loop;
    std::atomic<bool> in_time = true;
    int answers = 0;

    int bell = eventfd(0, EFD_NONBLOCK | EFD_CLOEXEC);
    std::function<void()> ring;
    int flood_priority = 0;
    sd_bus_message *held = nullptr;
    int said = 0;

  private:
    static int ask(sd_bus_message *call, void *, sd_bus_error *)
    {
        return sd_bus_reply_method_return(call, "s", "yes");
    }

    static int hold(sd_bus_message *call, void *user_data, sd_bus_error *)
    {
        auto *test = static_cast<TrafficTest *>(user_data);
        test->held = sd_bus_message_ref(call);
        /*
         * Starts the flood when the connection has nothing left to do. Uses a timer, since GLib
         * wakes itself up after it has run a source that has a descriptor.
         */
        before_the_wait = [test] {
            const auto run = [](gpointer self) -> gboolean {
                static_cast<TrafficTest *>(self)->flood();
                return G_SOURCE_REMOVE;
            };
            g_timeout_add_full(test->flood_priority, 0, run, test, nullptr);
            return Wait::NOT_AT_ALL;
        };
        return 1;
    }

    static constexpr sd_bus_vtable table[] = {
        SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Ask", "", "s", ask, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_METHOD("Hold", "", "s", hold, SD_BUS_VTABLE_UNPRIVILEGED),
        SD_BUS_VTABLE_END,
    };
};

} // namespace

TEST_F(TrafficTest, CallsAreAnsweredWhileAnotherThreadChangesTheContext)
{
    std::atomic<bool> is_over = false;
    /* Adding or removing a descriptor makes GLib drop its poll results and prepare again. */
    std::thread churn([&] {
        const int silent = eventfd(0, EFD_CLOEXEC);
        while (!is_over) {
            GSource *passing = g_unix_fd_source_new(silent, G_IO_IN);
            g_source_attach(passing, nullptr);
            g_source_destroy(passing);
            g_source_unref(passing);
        }
        close(silent);
    });
    std::thread visitor = visit(ROUNDS, [] {});
    EXPECT_TRUE(run_undisturbed());
    visitor.join();
    is_over = true;
    churn.join();
    EXPECT_EQ(answers, ROUNDS);
}

TEST_F(TrafficTest, CallsAreAnsweredBesideASourceOfHighPriority)
{
    int turns = 0;
    ring = [&] {
        turns++;
        if (turns % 3 != 0) {
            eventfd_write(bell, 1);
        }
    };
    const guint urgent = listen_to_bell(G_PRIORITY_HIGH);
    std::thread visitor = visit(ROUNDS, [this] { eventfd_write(bell, 1); });
    EXPECT_TRUE(run_undisturbed());
    visitor.join();
    EXPECT_EQ(answers, ROUNDS);
    EXPECT_GE(turns, ROUNDS);
    g_source_remove(urgent);
}

TEST_F(TrafficTest, CallsAreAnsweredWhileAnIdleSourceIsAlwaysReady)
{
    const guint idle = g_idle_add_full(
        G_PRIORITY_DEFAULT, [](gpointer) -> gboolean { return G_SOURCE_CONTINUE; }, nullptr,
        nullptr);
    std::thread visitor = visit(ROUNDS, [] {});
    EXPECT_TRUE(run_undisturbed());
    visitor.join();
    EXPECT_EQ(answers, ROUNDS);
    g_source_remove(idle);
}

TEST_F(TrafficTest, CallbacksQueuedMessagesAreSentWithoutIncomingTraffic)
{
    flood_at_priority(G_PRIORITY_DEFAULT);
}

TEST_F(TrafficTest, IdleCallbacksQueuedMessagesAreSentWithoutIncomingTraffic)
{
    flood_at_priority(G_PRIORITY_DEFAULT_IDLE);
}

/* In this case the connection is prepared when the callback runs, but not checked. */
TEST_F(TrafficTest, UrgentCallbacksQueuedMessagesAreSentWithoutIncomingTraffic)
{
    flood_at_priority(G_PRIORITY_HIGH);
}

TEST_F(TrafficTest, LostBusDoesNotKeepTheMainLoopBusy)
{
    bus.stop();
    int iterations = 0;
    while (iterations < 1000 && g_main_context_iteration(nullptr, FALSE)) {
        iterations++;
    }
    EXPECT_LT(iterations, 1000);
    EXPECT_FALSE(g_main_context_pending(nullptr));
    expect_log(LOG_LEVEL_ERROR, "The connection of com.vesk.Test to the system bus was lost.");
}
