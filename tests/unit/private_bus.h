#pragma once

/* A private message bus that replaces the system bus, and clients on it. */

#include <functional>
#include <gio/gio.h>
#include <string>
#include <vector>

#include "log_test.h"

/* Runs the default main context until `done` returns true. Returns false after a minute. */
bool run_until(const std::function<bool()> &done);

/*
 * A real dbus-daemon that runs while the object lives. DBUS_SYSTEM_BUS_ADDRESS is set to its
 * address, so the code under test uses it as the system bus. It is killed when the test ends, even
 * by a crash.
 */
class PrivateBus
{
  public:
    /* Starts the bus. It allows everything that `rules` (<allow>, <deny>) do not deny. */
    explicit PrivateBus(const std::string &rules = "");
    ~PrivateBus();
    PrivateBus(const PrivateBus &) = delete;
    PrivateBus &operator=(const PrivateBus &) = delete;

    /* Kills the bus; start() starts a new one at the same address. */
    void stop();
    void start();

    /* Suspends the bus until thaw(): it reads and answers nothing. */
    void freeze();
    void thaw();

    /* Returns a new client of the bus; free it with g_object_unref(). */
    GDBusConnection *connect() const;

  private:
    std::string folder;
    std::string address;
    GPid pid = 0;
};

/*
 * Calls a method from `peer` and runs the default main context until the answer. Returns the reply
 * as g_variant_print() prints it with types, or the error's D-Bus name and message. `arguments` may
 * be null.
 */
std::string bus_call(GDBusConnection *peer, const std::string &service, const std::string &object,
                     const std::string &interface, const std::string &method,
                     GVariant *arguments = nullptr);

/* Returns the value of a property, printed as by bus_call(). */
std::string bus_get(GDBusConnection *peer, const std::string &service, const std::string &object,
                    const std::string &interface, const std::string &property);

/* Records the signals of `sender` while the object lives. */
class SignalLog
{
  public:
    SignalLog(GDBusConnection *peer, const std::string &sender);
    ~SignalLog();
    SignalLog(const SignalLog &) = delete;
    SignalLog &operator=(const SignalLog &) = delete;

    /* Each as "object interface.signal arguments", oldest first. */
    std::vector<std::string> lines;

  private:
    GDBusConnection *peer;
    guint id;
};

/* A fixture that captures the log and has a private bus. */
class BusTest : public LogTest
{
  protected:
    BusTest();
    ~BusTest() override;

    PrivateBus bus;
    GDBusConnection *stranger; /* a client that is not part of the daemon */
};
