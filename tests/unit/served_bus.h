#pragma once

/* Method handlers on a real bus without the daemon's own connection, and calls that last. */

#include <gio/gio.h>
#include <memory>
#include <string>
#include <systemd/sd-bus.h>
#include <vector>

/* A connection to the system bus that the default main context serves. */
class ServedBus
{
  public:
    ServedBus();
    ~ServedBus();
    ServedBus(const ServedBus &) = delete;
    ServedBus &operator=(const ServedBus &) = delete;

    /*
     * Every method call to the object `path` goes to `handler`. No table says which arguments it
     * takes, so sd-bus refuses none.
     */
    void serve(const char *path, sd_bus_message_handler_t handler, void *user_data = nullptr);

    sd_bus *bus;
    std::string name; /* the unique one */

  private:
    guint watch;
};

/* A method call whose answer the test need not wait for. */
class PendingCall
{
  public:
    /* Sends the call. `interface` and `arguments` may be null. */
    PendingCall(GDBusConnection *peer, const std::string &service, const char *object,
                const char *interface, const char *method, GVariant *arguments);

    /* Gives up waiting, if the answer has not come. */
    ~PendingCall();
    PendingCall(const PendingCall &) = delete;
    PendingCall &operator=(const PendingCall &) = delete;

    bool is_answered() const;

    /* Waits for the answer. Returns it as bus_call() does. */
    std::string wait();

    /* How many pending calls of the process were answered before this one was. */
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
 * Has the bus and `service` answered everything that `peer` sent before? Waits until they have, by
 * an exchange that comes after; what has no answer then is being held.
 */
void settle(GDBusConnection *peer, const std::string &service);
