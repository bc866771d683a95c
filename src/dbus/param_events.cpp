#include "sonobrik_param_events.h"

#include "bus_names.h"
#include "platform/change_notifier.h"

namespace
{

ChangeNotifier *change_notifier;

void append_text(const char *key, const char *text)
{
    if (text) {
        change_notifier_append_pair(change_notifier, key, text);
    }
}

} // namespace

bool sonobrik_param_events_setup(EventProducer *producer)
{
    g_autoptr(GError) error = nullptr;
    change_notifier = change_notifier_new("SonoBrik", producer, &error);
    if (!change_notifier) {
        g_warning("%sUnable to create param event object", "");
        return false;
    }
    change_notifier_declare(change_notifier, SONOBRIK_LEGACY_SERVICE, SONOBRIK_OBJECT_PATH,
                            SONOBRIK_LEGACY_INTERFACE, &error);
    if (error) {
        g_warning("%sUnable to declare param event bus: %s", "", error->message);
        return false;
    }
    return true;
}

void sonobrik_param_events_teardown()
{
    g_clear_pointer(&change_notifier, change_notifier_free);
}

bool sonobrik_param_events_send(bool is_change, gint32 number, const char *location,
                                const char *name, const char *type)
{
    if (!change_notifier) {
        g_warning("%sWarning configuration event was not initiated", "");
        return false;
    }
    change_notifier_begin_change(change_notifier);
    append_text("Location", location);
    append_text("Name", name);
    append_text("Type", type);
    g_autofree char *entry_path = g_strdup_printf("%s/%d", SONOBRIK_OBJECT_PATH, number);
    g_autoptr(GError) error = nullptr;
    change_notifier_send(change_notifier, SONOBRIK_LEGACY_SERVICE, SONOBRIK_OBJECT_PATH,
                         SONOBRIK_LEGACY_INTERFACE, entry_path, is_change, &error);
    if (error) {
        g_warning("%sUnable to %s clip entry with number %d to param cache: %s", "",
                  is_change ? "change" : "add", number, error->message);
        return false;
    }
    return true;
}

bool sonobrik_param_events_register_new(gint32 number, const char *location, const char *name,
                                        const char *type)
{
    return location && name && type &&
           sonobrik_param_events_send(false, number, location, name, type);
}

bool sonobrik_param_events_register_change(gint32 number, const char *location, const char *name,
                                           const char *type)
{
    return (location || name || type) &&
           sonobrik_param_events_send(true, number, location, name, type);
}
