#include "group_methods.h"

#include <cstring>

#include "autoptr.h"
#include "bus_budget.h"
#include "log_level.h"
#include "sonobrik_dbus_method.h"
#include "sonobrik_group.h"
#include "sonobrik_osc.h"

namespace
{

/*
 * The size of the buffer for a value and its terminating zero. A value has at most 255 bytes; the
 * warning about a longer one names the size of the buffer.
 */
constexpr size_t VALUE_SIZE = SONOBRIK_GROUP_NAME_MAX + 1;

/* An entry of GetConfigurations without its three values: number, names, types and padding. */
constexpr size_t ENTRY_OVERHEAD = 128;

bool add_configuration(sd_bus_message *message, sd_bus_message *reply)
{
    gint32 index = -1;
    if (sd_bus_message_read(message, "i", &index) < 0) {
        g_warning("%s%s, failed to parse incoming message", "", "sonobrik_group_add_configuration");
        return false;
    }
    gint32 new_index = index;
    if (!sonobrik_group_create_group(&new_index, nullptr, nullptr, nullptr)) {
        g_info("%s%s failed to create new sonobrik group for index '%d'", "",
               "sonobrik_group_add_configuration", index);
        return false;
    }
    if (sd_bus_message_append(reply, "i", new_index) < 0) {
        log_error("%s%s failed to add parameter index to the reply message", "",
                  "sonobrik_group_add_configuration");
        return false;
    }
    return true;
}

bool remove_configuration(sd_bus_message *message, sd_bus_message *)
{
    gint32 index = -1;
    if (sd_bus_message_read(message, "i", &index) < 0) {
        g_warning("%s%s, failed to parse incoming message", "",
                  "sonobrik_group_remove_configuration");
        return false;
    }
    if (!sonobrik_group_remove_group(index)) {
        g_info("%s%s Failed to remove parameter with index '%d'", "",
               "sonobrik_group_remove_configuration", index);
        return false;
    }
    return true;
}

bool get_configuration(sd_bus_message *message, sd_bus_message *reply)
{
    gint32 index = -1;
    const char *name = nullptr;
    if (sd_bus_message_read(message, "is", &index, &name) < 0) {
        g_warning("%s%s, failed to parse incoming message", "", "sonobrik_group_get_configuration");
        return false;
    }
    g_autoptr(SonobrikGroup) group = sonobrik_group_from_index(index);
    if (!group) {
        return false;
    }
    const char *value = sonobrik_group_get_property(group, name);
    return value && sd_bus_message_append(reply, "s", name) >= 0 &&
           sd_bus_message_append(reply, "v", "s", value) >= 0;
}

/*
 * Reads the value of a property, a variant with an array of bytes, into the zero-filled `text`. Any
 * other content of the variant counts as an empty text. Returns false, with a warning, for a value
 * that is too long.
 */
bool read_value(sd_bus_message *message, const char *name, char (&text)[VALUE_SIZE])
{
    if (sd_bus_message_enter_container(message, SD_BUS_TYPE_VARIANT, "ay") <= 0) {
        return true;
    }
    bool fits = true;
    if (sd_bus_message_enter_container(message, SD_BUS_TYPE_ARRAY, "y") > 0) {
        guint8 byte = 0;
        size_t length = 0;
        while (fits && sd_bus_message_read_basic(message, SD_BUS_TYPE_BYTE, &byte) > 0) {
            text[length++] = static_cast<char>(byte);
            fits = length < VALUE_SIZE;
        }
        if (!fits) {
            g_warning("%sThe value of property '%s' exceeds the limit of %d characters", "", name,
                      static_cast<int>(VALUE_SIZE));
        }
        sd_bus_message_exit_container(message);
    }
    sd_bus_message_exit_container(message);
    return fits;
}

bool set_configuration(sd_bus_message *message, sd_bus_message *)
{
    gint32 index = -1;
    const char *name = nullptr;
    if (sd_bus_message_read(message, "is", &index, &name) < 0) {
        g_warning("%s%s, failed to parse incoming message", "", "sonobrik_group_set_configuration");
        return false;
    }
    char text[VALUE_SIZE] = {};
    if (!read_value(message, name, text)) {
        return false;
    }
    if (strcmp(name, "Name") != 0) {
        g_warning("%sUnable to change value of property called '%s' for group number %d", "", name,
                  index);
        return false;
    }
    g_autoptr(SonobrikGroup) group = sonobrik_group_from_index(index);
    return group && sonobrik_group_set_property(group, "Name", text);
}

bool append_property(sd_bus_message *reply, const char *name, const char *value)
{
    return sd_bus_message_open_container(reply, SD_BUS_TYPE_DICT_ENTRY, "sv") >= 0 &&
           sd_bus_message_append(reply, "sv", name, "s", value) >= 0 &&
           sd_bus_message_close_container(reply) >= 0;
}

/* Returns false if a property is missing or cannot be appended. */
bool append_properties(sd_bus_message *reply, const SonobrikGroup *group)
{
    for (guint i = 0; i < SONOBRIK_GROUP_PROPERTY_COUNT; i++) {
        const char *name = sonobrik_group_get_property_name(i);
        const char *value = sonobrik_group_get_enum_property(group, i);
        if (!name || !value || !append_property(reply, name, value)) {
            return false;
        }
    }
    return true;
}

/*
 * Appends the record's entry. Skips a record whose entry cannot be opened. Returns false if its
 * properties cannot be appended: the whole reply is then unusable.
 */
bool append_or_skip_group(sd_bus_message *reply, const SonobrikGroup *group)
{
    const gint32 index = sonobrik_group_get_index(group);
    if (index < 0 || sd_bus_message_open_container(reply, SD_BUS_TYPE_DICT_ENTRY, "ia{sv}") < 0) {
        return true;
    }
    if (sd_bus_message_append(reply, "i", index) < 0 ||
        sd_bus_message_open_container(reply, SD_BUS_TYPE_ARRAY, "{sv}") < 0) {
        sd_bus_message_close_container(reply);
        return true;
    }
    if (!append_properties(reply, group)) {
        return false;
    }
    sd_bus_message_close_container(reply);
    sd_bus_message_close_container(reply);
    return true;
}

/* Returns at least the size of the record's entry in the reply. */
size_t get_entry_size(const SonobrikGroup *group)
{
    return ENTRY_OVERHEAD + strlen(group->location) + strlen(group->name) + strlen(group->type);
}

bool get_configurations(sd_bus_message *, sd_bus_message *reply)
{
    GSList *groups = sonobrik_group_get_parameter_list();
    if (!groups) {
        return false; /* callers recognise an empty store by this error */
    }
    sd_bus_message_open_container(reply, SD_BUS_TYPE_ARRAY, "{ia{sv}}");
    size_t left = BUS_BUDGET;
    bool complete = true;
    for (GSList *node = groups; node && complete; node = node->next) {
        auto *group = static_cast<SonobrikGroup *>(node->data);
        if (!bus_budget_take(&left, get_entry_size(group))) {
            bus_budget_report(node, "the reply to GetConfigurations");
            break;
        }
        complete = append_or_skip_group(reply, group);
    }
    sd_bus_message_close_container(reply);
    sonobrik_group_release_parameter_list(&groups);
    return complete;
}

bool sync_controls(sd_bus_message *, sd_bus_message *)
{
    if (!sonobrik_osc_update()) {
        g_warning("%sFailed to update onscreencontrols while syncing parameters", "");
    }
    return true;
}

/* Answers a method call. If it fails, the error text is empty. */
template <typename Work>
int answer(sd_bus_message *message, sd_bus_error *ret_error, const char *error_name, Work work)
{
    return sonobrik_dbus_method_answer(
        message, ret_error, error_name, "",
        [&](auto *state, auto *reply) { return work(state->message, reply); });
}

} // namespace

int sonobrik_group_add_configuration(sd_bus_message *message, void *, sd_bus_error *ret_error)
{
    return answer(message, ret_error, "com.vesk.Sonobrik.Legacy.AddConfiguration",
                  add_configuration);
}

int sonobrik_group_remove_configuration(sd_bus_message *message, void *, sd_bus_error *ret_error)
{
    return answer(message, ret_error, "com.vesk.Sonobrik.Legacy.RemoveConfiguration",
                  remove_configuration);
}

int sonobrik_group_get_configuration(sd_bus_message *message, void *, sd_bus_error *ret_error)
{
    return answer(message, ret_error, "com.vesk.Sonobrik.Legacy.GetConfigurationEntry",
                  get_configuration);
}

int sonobrik_group_set_configuration(sd_bus_message *message, void *, sd_bus_error *ret_error)
{
    return answer(message, ret_error, "com.vesk.Sonobrik.Legacy.SetConfigurationEntry",
                  set_configuration);
}

int sonobrik_group_get_configurations(sd_bus_message *message, void *, sd_bus_error *ret_error)
{
    return answer(message, ret_error, "com.vesk.Sonobrik.Legacy.GetConfigurations",
                  get_configurations);
}

int sonobrik_group_sync(sd_bus_message *message, void *, sd_bus_error *ret_error)
{
    return answer(message, ret_error, "com.vesk.Sonobrik.Legacy.Sync", sync_controls);
}

const sd_bus_vtable group_method_table[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("AddConfiguration", "i", "i", sonobrik_group_add_configuration,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("RemoveConfiguration", "i", "", sonobrik_group_remove_configuration,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetConfigurationEntry", "is", "v", sonobrik_group_get_configuration,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("SetConfigurationEntry", "isv", "", sonobrik_group_set_configuration,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("GetConfigurations", "", "a{ia{sv}}", sonobrik_group_get_configurations,
                  SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("Sync", "", "", sonobrik_group_sync, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};
