#include "client_policy.h"

#include <glib.h>
#include <string>

namespace
{

const char *access_file = SONOBRIK_SYSCONFDIR "/vesk/access.conf";

/* Returns the most specific section of the policy file for `action`, or an empty string. */
std::string find_section(GKeyFile *policy, std::string action)
{
    while (!action.empty() && !g_key_file_has_group(policy, action.c_str())) {
        const size_t dot = action.rfind('.');
        action.resize(dot == std::string::npos ? 0 : dot);
    }
    return action;
}

/* Returns the names under `key`, each between two `quote`, separated by ", ". */
std::string list_names(GKeyFile *policy, const std::string &section, const char *key,
                       const char *quote)
{
    g_auto(GStrv) names =
        g_key_file_get_string_list(policy, section.c_str(), key, nullptr, nullptr);
    std::string text;
    for (char **name = names; name && *name; name++) {
        text += (text.empty() ? "" : ", ") + (std::string(quote) + *name + quote);
    }
    return text;
}

} // namespace

std::string client_policy_describe(const char *method)
{
    g_autoptr(GKeyFile) policy = g_key_file_new();
    if (!g_key_file_load_from_file(policy, access_file, G_KEY_FILE_NONE, nullptr)) {
        return "";
    }
    const std::string section = find_section(policy, std::string("com.vesk.Sonobrik.") + method);
    if (section.empty()) {
        return "";
    }
    std::string users = list_names(policy, section, "users", "");
    const std::string groups = list_names(policy, section, "groups", "'");
    if (groups.empty()) {
        return users;
    }
    const bool is_plural = groups.find("', '") != std::string::npos;
    return users + (users.empty() ? "" : " and ") + "members of group" + (is_plural ? "s " : " ") +
           groups;
}

void client_policy_set_file(const char *path)
{
    access_file = path;
}
