#pragma once

/* The on-screen controls service, played on a private bus. */

#include <atomic>
#include <gio/gio.h>
#include <mutex>
#include <set>
#include <string>
#include <vector>

#include "private_bus.h"

/*
 * Owns "com.vesk.Onscreencontrols1" while the object lives, and answers each method call from a
 * thread of its own, so that a test may block.
 */
class PlayedControls
{
  public:
    enum class Answer {
        EMPTY, /* a reply without a value */
        TEXT,  /* a reply with a value */
        ERROR, /* org.freedesktop.DBus.Error.AccessDenied */
    };

    explicit PlayedControls(const PrivateBus &bus);
    ~PlayedControls();
    PlayedControls(const PlayedControls &) = delete;
    PlayedControls &operator=(const PlayedControls &) = delete;

    /* "destination object interface.method arguments" each, oldest first. */
    std::vector<std::string> requests();

    /* The unique names of those who called. */
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
