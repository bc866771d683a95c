#pragma once

/* A fake on-screen controls service on a private bus. */

#include <atomic>
#include <gio/gio.h>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "private_bus.h"

/*
 * Owns "com.vesk.Onscreencontrols1" while the object lives. Answers method calls on GDBus's own
 * thread, so the code under test may block the test's thread.
 */
class FakeControls
{
  public:
    enum class Answer {
        EMPTY, /* a reply without a value */
        TEXT,  /* a reply with a value */
        ERROR, /* org.freedesktop.DBus.Error.AccessDenied */
    };

    explicit FakeControls(const PrivateBus &bus);
    ~FakeControls();
    FakeControls(const FakeControls &) = delete;
    FakeControls &operator=(const FakeControls &) = delete;

    /* Returns the calls, oldest first, each as "destination object interface.method arguments". */
    std::vector<std::string> requests();

    /* Returns the unique names of the callers. */
    std::set<std::string> callers();

    std::atomic<Answer> answer = Answer::EMPTY;

  private:
    static GDBusMessage *filter(GDBusConnection *connection, GDBusMessage *message,
                                gboolean incoming, gpointer controls);
    void serve(GDBusConnection *connection, GDBusMessage *call);

    GDBusConnection *connection;
    guint filter_id;
    std::mutex lock;
    std::vector<std::string> made;
    std::set<std::string> made_by;
};
