#include "sonobrik_osc.h"

#include <cstring>
#include <glib.h>

#include "autoptr.h"
#include "log_level.h"
#include "osc_document.h"
#include "sonobrik_dbus.h"

namespace
{

constexpr const char *SERVICE_NAME = "com.vesk.Onscreencontrols1";
constexpr const char *OBJECT_PATH = "/com/vesk/Onscreencontrols1";

/* Opened by the first update, and again by the next update after it was lost. */
sonobrik_dbus connection;

/* Logs a failed step. The number identifies the step in the log, so it never changes. */
bool fail(int number, int r)
{
    log_error("%sFailed to execute sd-bus command (line %d): %s", "", number, strerror(-r));
    return false;
}

/* The next update opens the connection again. */
void on_lost(sonobrik_dbus *conn)
{
    g_warning("%sThe connection to the on-screen controls was lost.", "");
    sonobrik_dbus_teardown(conn);
}

bool connect_to_bus()
{
    if (connection.bus && sd_bus_is_open(connection.bus) <= 0) {
        on_lost(&connection); /* the main loop has not noticed yet */
    }
    if (connection.bus) {
        return true;
    }
    if (sd_bus_open_system(&connection.bus) < 0 || !sonobrik_dbus_attach(&connection, on_lost)) {
        log_error("%sFailed to connect to the system bus.", "");
        sonobrik_dbus_teardown(&connection);
        return false;
    }
    return true;
}

struct Answer {
    bool arrived;
    int r; /* 0, or a negative errno value */
};

int on_answer(sd_bus_message *message, void *user_data, sd_bus_error *)
{
    auto *answer = static_cast<Answer *>(user_data);
    answer->arrived = true;
    answer->r = -sd_bus_message_get_errno(message);
    return 1; /* makes sd_bus_process() report progress, also when the call timed out */
}

/*
 * Sends the call and waits for its answer. Returns 0 or a negative errno value. sd_bus_call() would
 * keep every other message that arrives meanwhile, with its file descriptors; this loop drops them.
 */
int call(sd_bus *bus, sd_bus_message *message)
{
    sd_bus_ref(bus); /* losing the connection drops the reference that `connection` holds */
    g_autoptr(sd_bus_slot) slot = nullptr;
    Answer answer = {};
    int r = sd_bus_call_async(bus, &slot, message, on_answer, &answer, 0);
    while (r >= 0 && !answer.arrived) {
        r = sd_bus_process(bus, nullptr);
        if (r == 0) {
            r = sd_bus_wait(bus, UINT64_MAX); /* the time-out of the call ends it */
        }
    }
    sd_bus_unref(bus);
    return answer.arrived ? answer.r : r;
}

/* Sends the document and waits for the answer. Returns false with a log line. */
bool add_features(sd_bus *bus, const char *document)
{
    g_autoptr(sd_bus_message) message = nullptr;
    int r = sd_bus_message_new_method_call(bus, &message, SERVICE_NAME, OBJECT_PATH, SERVICE_NAME,
                                           "AddFeatures");
    if (r < 0) {
        return fail(119, r);
    }
    r = sd_bus_message_append(message, "sss", "en-us", "English", document);
    if (r < 0) {
        return fail(127, r);
    }
    sd_bus_message_open_container(message, SD_BUS_TYPE_ARRAY, "{sv}");
    r = sd_bus_message_close_container(message);
    if (r < 0) {
        return fail(132, r);
    }
    r = call(bus, message);
    return r >= 0 || fail(135, r);
}

} // namespace

bool sonobrik_osc_setup()
{
    return sonobrik_osc_update();
}

bool sonobrik_osc_update()
{
    if (!connect_to_bus()) {
        return false;
    }
    g_auto(JsonText) document = osc_document_new();
    return document && add_features(connection.bus, document);
}

void sonobrik_osc_teardown()
{
    sonobrik_dbus_teardown(&connection);
}
