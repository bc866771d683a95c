#include "sonobrik_osc.h"

#include <cstdlib>
#include <cstring>
#include <glib.h>
#include <memory>

#include "autoptr.h"
#include "log_level.h"
#include "osc_document.h"

namespace
{

constexpr const char *SERVICE_NAME = "com.vesk.Onscreencontrols1";
constexpr const char *OBJECT_PATH = "/com/vesk/Onscreencontrols1";

/* Opened by the first update and kept for those that follow. */
sd_bus *bus;

/*
 * Logs a step that failed. The numbers stand for the steps, as people who read the logs of devices
 * know them; they are fixed, whichever line the step is on now.
 */
bool fail(int number, int r)
{
    log_error("%sFailed to execute sd-bus command (line %d): %s", "", number, strerror(-r));
    return false;
}

/* Sends the document and waits for the answer. Returns false with a log line. */
bool add_features(const char *document)
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
    sd_bus_error error = {};
    r = sd_bus_call(bus, message, 0, &error, nullptr);
    sd_bus_error_free(&error);
    return r >= 0 || fail(135, r);
}

} // namespace

bool sonobrik_osc_setup()
{
    return sonobrik_osc_update();
}

bool sonobrik_osc_update()
{
    if (!bus && sd_bus_open_system(&bus) < 0) {
        log_error("%sFailed to connect to the system bus.", "");
    }
    if (!bus) {
        return false;
    }
    const std::unique_ptr<char, decltype(&free)> document(osc_document_new(), free);
    return document && add_features(document.get());
}

void sonobrik_osc_teardown()
{
    sd_bus_flush_close_unref(g_steal_pointer(&bus));
}
