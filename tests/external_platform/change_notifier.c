/* Writes each change to the log, because nothing on this device caches the list of clips. */

#include "platform/change_notifier.h"

struct ChangeNotifier {
    char *source;
    GString *values; /* of the description; null if none was started */
};

static bool refuse_null(GError **error)
{
    g_set_error(error, g_quark_from_static_string("vesk-platform"), 0, "an argument is missing");
    return false;
}

struct ChangeNotifier *change_notifier_new(const char *source_name, struct EventProducer *producer,
                                           GError **error)
{
    if (!source_name || !producer) {
        refuse_null(error);
        return NULL;
    }
    struct ChangeNotifier *notifier = g_new0(struct ChangeNotifier, 1);
    notifier->source = g_strdup(source_name);
    return notifier;
}

static void drop_description(struct ChangeNotifier *notifier)
{
    if (notifier->values) {
        g_string_free(notifier->values, TRUE);
        notifier->values = NULL;
    }
}

void change_notifier_free(struct ChangeNotifier *notifier)
{
    if (notifier) {
        drop_description(notifier);
        g_free(notifier->source);
        g_free(notifier);
    }
}

bool change_notifier_declare(struct ChangeNotifier *notifier, const char *service,
                             const char *object_path, const char *interface, GError **error)
{
    return (notifier && service && object_path && interface) || refuse_null(error);
}

void change_notifier_begin_change(struct ChangeNotifier *notifier)
{
    if (notifier) {
        drop_description(notifier);
        notifier->values = g_string_new(NULL);
    }
}

void change_notifier_append_pair(struct ChangeNotifier *notifier, const char *key,
                                 const char *value)
{
    if (notifier && notifier->values && key && value) {
        g_string_append_printf(notifier->values, " %s=%s", key, value);
    }
}

bool change_notifier_send(struct ChangeNotifier *notifier, const char *service,
                          const char *object_path, const char *interface, const char *entry_path,
                          bool is_change, GError **error)
{
    if (!notifier || !notifier->values || !service || !object_path || !interface || !entry_path) {
        return refuse_null(error);
    }
    g_message("%s %s %s%s", notifier->source, is_change ? "changed" : "added", entry_path,
              notifier->values->str);
    drop_description(notifier);
    return true;
}
