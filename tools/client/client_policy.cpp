#include "client_policy.h"

#include <glib.h>
#include <string>

namespace
{

const char *access_file = "/etc/vesk/access.conf";

/* Returns the most specific group of the file for `action`; empty if there is none. */
std::string find_group(GKeyFile *policy, std::string action)
{
    while (!action.empty() && !g_key_file_has_group(policy, action.c_str())) {
        const size_t dot = action.rfind('.');
        action.resize(dot == std::string::npos ? 0 : dot);
    }
    return action;
}

/* Returns the names that are listed under `key`, as in "a, b". */
std::string list_names(GKeyFile *policy, const std::string &group, const char *key)
{
    g_auto(GStrv) names = g_key_file_get_string_list(policy, group.c_str(), key, nullptr, nullptr);
    g_autofree char *text = names ? g_strjoinv(", ", names) : g_strdup("");
    return text;
}

} // namespace

char *client_policy_describe(const char *method)
{
    g_autoptr(GKeyFile) policy = g_key_file_new();
    if (!g_key_file_load_from_file(policy, access_file, G_KEY_FILE_NONE, nullptr)) {
        return nullptr;
    }
    const std::string group = find_group(policy, std::string("com.vesk.Sonobrik.") + method);
    if (group.empty()) {
        return nullptr;
    }
    const std::string users = list_names(policy, group, "users");
    const std::string groups = list_names(policy, group, "groups");
    if (users.empty() && groups.empty()) {
        return nullptr;
    }
    if (groups.empty()) {
        return g_strdup(users.c_str());
    }
    const bool several = groups.find(',') != std::string::npos;
    return g_strdup_printf("%s%smembers of the group%s %s", users.c_str(),
                           users.empty() ? "" : ", and ", several ? "s" : "", groups.c_str());
}

void client_policy_set_file(const char *path)
{
    access_file = path;
}
