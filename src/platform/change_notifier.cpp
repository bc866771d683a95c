#include "platform/change_notifier.h"

#include <cerrno>
#include <cstring>
#include <string>
#include <utility>
#include <vector>

#include "platform_bus.h"
#include "platform_error.h"
#include "platform_text.h"

struct ChangeNotifier {
    std::string path; /* of the object that announces the changes */
    sd_bus *bus;      /* held; if it is lost, the next use replaces it */
    bool has_change;  /* a change was started and not yet sent */
    std::vector<std::pair<std::string, std::string>> values; /* of that change */
};

namespace
{

constexpr const char *INTERFACE_NAME = "com.vesk.ConfigurationChanges1";

bool set_invalid(GError **error, const char *reason)
{
    g_set_error_literal(error, PLATFORM_ERROR, EINVAL, reason);
    return false;
}

int append_values(const ChangeNotifier *notifier, sd_bus_message *signal)
{
    int r = sd_bus_message_open_container(signal, SD_BUS_TYPE_ARRAY, "{ss}");
    for (const auto &[key, value] : notifier->values) {
        if (r >= 0) {
            r = sd_bus_message_append(signal, "{ss}", key.c_str(), value.c_str());
        }
    }
    return r < 0 ? r : sd_bus_message_close_container(signal);
}

bool send_signal(const ChangeNotifier *notifier, const char *service, const char *object_path,
                 const char *interface, const char *entry_path, bool is_change, GError **error)
{
    g_autoptr(sd_bus_message) signal = nullptr;
    int r = sd_bus_message_new_signal(notifier->bus, &signal, notifier->path.c_str(),
                                      INTERFACE_NAME, "EntryChanged");
    if (r >= 0) {
        r = sd_bus_message_append(signal, "ssssb", service, object_path, interface, entry_path,
                                  static_cast<int>(is_change));
    }
    if (r >= 0) {
        r = append_values(notifier, signal);
    }
    if (r >= 0) {
        r = sd_bus_send(notifier->bus, signal, nullptr);
    }
    if (r < 0) {
        g_set_error_literal(error, PLATFORM_ERROR, -r, g_strerror(-r));
    }
    return r >= 0;
}

} // namespace

ChangeNotifier *change_notifier_new(const char *source_name, EventProducer *producer,
                                    GError **error)
{
    const std::string path =
        std::string("/com/vesk/ConfigurationChanges1/") + (source_name ? source_name : "");
    /* The name becomes one element of the path; a "/" in it would make several. */
    if (!source_name || strchr(source_name, '/') ||
        sd_bus_object_path_is_valid(path.c_str()) <= 0) {
        set_invalid(error, "the source name must consist of letters, digits and underscores");
        return nullptr;
    }
    if (!producer) {
        set_invalid(error, "the event producer is missing");
        return nullptr;
    }
    auto *notifier = new ChangeNotifier{};
    notifier->path = path;
    if (!platform_bus_hold(&notifier->bus, error)) {
        delete notifier;
        return nullptr;
    }
    return notifier;
}

void change_notifier_free(ChangeNotifier *notifier)
{
    if (notifier) {
        platform_bus_release(notifier->bus);
        delete notifier;
    }
}

/* Only checks the names, and stores nothing: each signal carries its names itself. */
bool change_notifier_declare(ChangeNotifier *notifier, const char *service, const char *object_path,
                             const char *interface, GError **error)
{
    if (!notifier || !service || sd_bus_service_name_is_valid(service) <= 0 || !object_path ||
        sd_bus_object_path_is_valid(object_path) <= 0 || !interface ||
        sd_bus_interface_name_is_valid(interface) <= 0) {
        return set_invalid(error, "the service, object path or interface is missing or invalid");
    }
    return true;
}

void change_notifier_begin_change(ChangeNotifier *notifier)
{
    if (notifier) {
        notifier->has_change = true;
        notifier->values.clear();
    }
}

void change_notifier_append_pair(ChangeNotifier *notifier, const char *key, const char *value)
{
    if (notifier && key && value) {
        g_autofree char *valid_key = platform_text_make_valid(key);
        g_autofree char *valid_value = platform_text_make_valid(value);
        notifier->values.emplace_back(valid_key, valid_value);
    }
}

bool change_notifier_send(ChangeNotifier *notifier, const char *service, const char *object_path,
                          const char *interface, const char *entry_path, bool is_change,
                          GError **error)
{
    if (!notifier || !notifier->has_change || !service || !object_path || !interface ||
        !entry_path) {
        return set_invalid(error, "no change was started, or a name of its entry is missing");
    }
    const bool is_sent =
        platform_bus_hold(&notifier->bus, error) &&
        send_signal(notifier, service, object_path, interface, entry_path, is_change, error);
    notifier->has_change = false;
    notifier->values.clear();
    return is_sent;
}
