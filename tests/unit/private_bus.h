#pragma once

/* A message bus of the test's own, in the place of the system bus, and strangers on it. */

#include <functional>
#include <gio/gio.h>
#include <string>
#include <vector>

#include "log_test.h"

/* Runs the default main context until `done` says so. False if it has not after ten seconds. */
bool run_until(const std::function<bool()> &done);

/*
 * A real dbus-daemon, as long as the object lives. Its address stands in DBUS_SYSTEM_BUS_ADDRESS,
 * so that the code under test takes it for the system bus. It dies with the test, however that
 * ends.
 */
class PrivateBus
{
  public:
    /* Everything is allowed, except for what `rules`, <allow> and <deny> elements, say otherwise.
     */
    explicit PrivateBus(const std::string &rules = "");
    ~PrivateBus();
    PrivateBus(const PrivateBus &) = delete;
    PrivateBus &operator=(const PrivateBus &) = delete;

    /* Ends the bus; start() begins a new one at the same address. */
    void stop();
    void start();

    /* The bus reads and answers nothing until it is thawed. */
    void freeze();
    void thaw();

    /* A new client of the bus, to be freed with g_object_unref(). */
    GDBusConnection *connect() const;

  private:
    std::string folder;
    std::string address;
    GPid pid = 0;
};

/*
 * Calls a method as `peer` does, while the default main context runs. Returns the reply as
 * g_variant_print() prints it with types, or the error's D-Bus name and message. `arguments` may be
 * null.
 */
std::string bus_call(GDBusConnection *peer, const std::string &service, const std::string &object,
                     const std::string &interface, const std::string &method,
                     GVariant *arguments = nullptr);

/* A property's value, printed as bus_call() does. */
std::string bus_get(GDBusConnection *peer, const std::string &service, const std::string &object,
                    const std::string &interface, const std::string &property);

/* Everything that a peer hears from `sender` while the object lives. */
class SignalLog
{
  public:
    SignalLog(GDBusConnection *peer, const std::string &sender);
    ~SignalLog();
    SignalLog(const SignalLog &) = delete;
    SignalLog &operator=(const SignalLog &) = delete;

    /* "object interface.signal arguments" each, oldest first. */
    std::vector<std::string> lines;

  private:
    GDBusConnection *peer;
    guint id;
};

/* A test with a log and a private bus. */
class BusTest : public LogTest
{
  protected:
    BusTest();
    ~BusTest() override;

    PrivateBus bus;
    GDBusConnection *stranger; /* a client of the bus that has nothing to do with the daemon */
};
