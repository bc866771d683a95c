#pragma once

/* Runs method handlers on a bus without the daemon's own connection, and waits for slow calls. */

#include <gio/gio.h>
#include <memory>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

/* A connection to the system bus, run by the default main context. */
class BusServer
{
  public:
    BusServer();
    ~BusServer();
    BusServer(const BusServer &) = delete;
    BusServer &operator=(const BusServer &) = delete;

    /*
     * Passes every method call to the object `path` to `handler`. There is no method table, so
     * sd-bus does not check the arguments.
     */
    void serve(const char *path, sd_bus_message_handler_t handler, void *user_data = nullptr);

    sd_bus *bus;
    std::string name; /* the unique name */

  private:
    guint watch;
};

/* A method call that does not block the test until it is answered. */
class PendingCall
{
  public:
    /* Sends the call. `interface` and `arguments` may be null. */
    PendingCall(GDBusConnection *peer, const std::string &service, const char *object,
                const char *interface, const char *method, GVariant *arguments);

    /* Cancels the call if it has not been answered. */
    ~PendingCall();
    PendingCall(const PendingCall &) = delete;
    PendingCall &operator=(const PendingCall &) = delete;

    bool is_answered() const;

    /* Waits for the answer and returns it as bus_call() does. */
    std::string wait();

    /* Returns how many pending calls of the process were answered before this one. */
    int rank() const;

  private:
    struct Answer {
        bool is_there = false;
        int rank = 0;
        std::string text;
    };

    static void keep(GObject *peer, GAsyncResult *result, gpointer answer);

    GCancellable *cancellable;
    std::shared_ptr<Answer> answer;
};

/*
 * Waits until `service` has handled everything that `peer` sent before, by calling Ping and waiting
 * for the answer. A call that is unanswered after that is being held.
 */
void settle(GDBusConnection *peer, const std::string &service);
