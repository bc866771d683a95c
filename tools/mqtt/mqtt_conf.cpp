#include "mqtt_conf.h"

#include <algorithm>
#include <cerrno>
#include <fcntl.h>
#include <functional>
#include <sys/stat.h>
#include <unistd.h>

#include "autoptr.h"
#include "client_text.h"
#include "mqtt_topics.h"

namespace
{

constexpr gint64 PORT = 1883;
constexpr gint64 PORT_OF_TLS = 8883;

/* The largest file, and the longest password that MQTT can carry. */
constexpr gsize MAX_FILE = 1'048'576;
constexpr gsize MAX_PASSWORD = 65'535;

struct Number {
    gint64 MqttConf::*place;
    gint64 min;
    gint64 max;
};

/* A key has one place, whose type is that of the value. */
struct Key {
    const char *group;
    const char *name;
    std::string MqttConf::*text = nullptr;
    bool MqttConf::*flag = nullptr;
    Number number = {};
    std::vector<std::string> MqttConf::*list = nullptr;
};

const Key KEYS[] = {
    {.group = "broker", .name = "host", .text = &MqttConf::host},
    {.group = "broker", .name = "port", .number = {&MqttConf::port, 1, 65'535}},
    {.group = "broker", .name = "tls", .flag = &MqttConf::tls},
    {.group = "broker", .name = "allow-plaintext", .flag = &MqttConf::allow_plaintext},
    {.group = "broker", .name = "ca-file", .text = &MqttConf::ca_file},
    {.group = "broker", .name = "cert-file", .text = &MqttConf::cert_file},
    {.group = "broker", .name = "key-file", .text = &MqttConf::key_file},
    {.group = "broker", .name = "username", .text = &MqttConf::username},
    {.group = "broker", .name = "password-file", .text = &MqttConf::password_file},
    {.group = "broker", .name = "client-id", .text = &MqttConf::client_id},
    {.group = "broker", .name = "keepalive", .number = {&MqttConf::keepalive, 5, 3600}},
    {.group = "broker",
     .name = "session-expiry",
     .number = {&MqttConf::session_expiry, 0, 31'536'000}},
    {.group = "node", .name = "prefix", .text = &MqttConf::prefix},
    {.group = "node", .name = "name", .text = &MqttConf::name},
    {.group = "node", .name = "groups", .list = &MqttConf::groups},
    {.group = "play", .name = "lead", .number = {&MqttConf::lead, 0, 10'000}},
    {.group = "play", .name = "grace", .number = {&MqttConf::grace, 100, 3'600'000}},
    {.group = "play", .name = "allow-any-location", .flag = &MqttConf::allow_any_location},
    {.group = "play", .name = "max-payload", .number = {&MqttConf::max_payload, 256, 262'144}},
    {.group = "homeassistant", .name = "discovery", .flag = &MqttConf::discovery},
    {.group = "homeassistant", .name = "prefix", .text = &MqttConf::discovery_prefix},
    {.group = "homeassistant", .name = "device-name", .text = &MqttConf::device_name},
};

bool fail(std::string *why, const std::string &text)
{
    *why = text;
    return false;
}

bool read_flag(bool *flag, const std::string &value)
{
    *flag = value == "yes" || value == "true" || value == "1";
    return *flag || value == "no" || value == "false" || value == "0";
}

bool set_value(MqttConf *conf, const Key &key, const std::string &value, std::string *why)
{
    const std::string where = std::string("[") + key.group + "] " + key.name;
    if (key.text) {
        conf->*key.text = value;
    } else if (key.flag && !read_flag(&(conf->*key.flag), value)) {
        return fail(why, where + ": '" + value + "' is neither yes nor no");
    } else if (key.number.place) {
        gint64 number = 0;
        if (!client_text_read_number(value, &number) || number < key.number.min ||
            number > key.number.max) {
            return fail(why, where + ": '" + value + "' is not a number from " +
                                 std::to_string(key.number.min) + " to " +
                                 std::to_string(key.number.max));
        }
        conf->*key.number.place = number;
    } else if (key.list) {
        g_auto(GStrv) items = g_strsplit(value.c_str(), ";", -1);
        for (char **item = items; *item; item++) {
            if (*g_strstrip(*item) != '\0') {
                (conf->*key.list).emplace_back(*item);
            }
        }
    }
    return true;
}

bool read_group(MqttConf *conf, GKeyFile *file, const char *group, std::string *why)
{
    g_auto(GStrv) names = g_key_file_get_keys(file, group, nullptr, nullptr);
    for (char **name = names; *name; name++) {
        const auto *key = std::ranges::find_if(KEYS, [group, name](const Key &candidate) {
            return g_str_equal(candidate.group, group) && g_str_equal(candidate.name, *name);
        });
        if (key == std::end(KEYS)) {
            return fail(why, std::string("there is no key '") + *name + "' in [" + group + "]");
        }
        g_autofree char *value = g_key_file_get_value(file, group, *name, nullptr);
        if (!value || !set_value(conf, *key, g_strstrip(value), why)) {
            return false;
        }
    }
    return true;
}

bool check_names(const MqttConf &conf, std::string *why)
{
    if (!mqtt_topics_is_prefix(conf.prefix)) {
        return fail(why, "[node] prefix: '" + conf.prefix + "' cannot begin a topic");
    }
    if (!mqtt_topics_is_level(conf.name) || conf.name == MQTT_GROUP_LEVEL) {
        return fail(why, "[node] name: '" + conf.name + "' cannot be a level of a topic");
    }
    for (const std::string &group : conf.groups) {
        if (!mqtt_topics_is_level(group)) {
            return fail(why, "[node] groups: '" + group + "' cannot be a level of a topic");
        }
    }
    if (!mqtt_topics_is_prefix(conf.discovery_prefix)) {
        return fail(why,
                    "[homeassistant] prefix: '" + conf.discovery_prefix + "' cannot begin a topic");
    }
    return true;
}

bool check_broker(const MqttConf &conf, std::string *why)
{
    if (conf.host.empty()) {
        return fail(why, "[broker] host: no broker is named");
    }
    if (!conf.tls && !conf.allow_plaintext && !mqtt_conf_is_local(conf.host)) {
        return fail(why,
                    "[broker] tls: without TLS, anybody on the network between this node and '" +
                        conf.host +
                        "' can read and change the commands; set allow-plaintext=yes if that is "
                        "acceptable");
    }
    if (conf.cert_file.empty() != conf.key_file.empty()) {
        return fail(why, "[broker] cert-file and key-file: one needs the other");
    }
    if (!conf.tls && !(conf.ca_file.empty() && conf.cert_file.empty())) {
        return fail(why, "[broker] tls: it is off, but there are certificates");
    }
    if (conf.username.empty() && !conf.password_file.empty()) {
        return fail(why, "[broker] password-file: there is no username");
    }
    return true;
}

/* Reads the file `path` unless `is_private` and other users can read it. Returns 0 or an errno
 * value; EPERM if they can. */
int read_file(const std::string &path, bool is_private, gsize max, std::string *content)
{
    const int fd = open(path.c_str(), O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY);
    if (fd < 0) {
        return errno;
    }
    struct stat status = {};
    int error = fstat(fd, &status) < 0 ? errno : 0;
    if (error == 0 && !S_ISREG(status.st_mode)) {
        error = EINVAL;
    }
    if (error == 0 && is_private && (status.st_mode & S_IRWXO) != 0) {
        error = EPERM;
    }
    char buffer[4096];
    while (error == 0) {
        const ssize_t count = read(fd, buffer, sizeof(buffer));
        if (count < 0) {
            error = errno;
        } else if (count == 0) {
            break;
        } else if (content->size() + static_cast<gsize>(count) > max) {
            error = EFBIG;
        } else {
            content->append(buffer, static_cast<gsize>(count));
        }
    }
    close(fd);
    return error;
}

bool fail_to_read(std::string *why, const std::string &path, int error)
{
    return fail(why, path + ": " +
                         (error == EPERM ? "other users can read it; run 'chmod o= " + path + "'"
                                         : g_strerror(error)));
}

} // namespace

bool mqtt_conf_is_local(std::string_view host)
{
    if (host == "localhost" || host == "::1") {
        return true;
    }
    /* 127.0.0.0/8, but not a name such as 127.example.com. */
    return host.starts_with("127.") &&
           host.find_first_not_of("0123456789.") == std::string_view::npos;
}

bool mqtt_conf_read(MqttConf *conf, std::string_view text, const std::string &hostname,
                    std::string *why)
{
    /* GLib takes a text with a NUL byte as a shorter one. */
    if (text.find('\0') != std::string_view::npos) {
        return fail(why, "it contains a NUL byte");
    }
    if (!g_utf8_validate(text.data(), static_cast<gssize>(text.size()), nullptr)) {
        return fail(why, "it is not valid UTF-8");
    }
    g_autoptr(GKeyFile) file = g_key_file_new();
    g_autoptr(GError) error = nullptr;
    if (!text.empty() &&
        !g_key_file_load_from_data(file, text.data(), text.size(), G_KEY_FILE_NONE, &error)) {
        return fail(why, error->message);
    }
    g_auto(GStrv) groups = g_key_file_get_groups(file, nullptr);
    for (char **group = groups; *group; group++) {
        if (std::ranges::none_of(
                KEYS, [group](const Key &key) { return g_str_equal(key.group, *group); })) {
            return fail(why, std::string("there is no group [") + *group + "]");
        }
        if (!read_group(conf, file, *group, why)) {
            return false;
        }
    }
    if (conf->name.empty()) {
        conf->name = hostname;
    }
    if (conf->port == 0) {
        conf->port = conf->tls ? PORT_OF_TLS : PORT;
    }
    if (conf->client_id.empty()) {
        conf->client_id = "sonobrik-" + conf->name;
    }
    if (conf->device_name.empty()) {
        conf->device_name = "sonobrik " + conf->name;
    }
    return check_names(*conf, why) && check_broker(*conf, why);
}

bool mqtt_conf_load(MqttConf *conf, const char *path, const std::string &hostname, std::string *why)
{
    std::string text;
    const int error = read_file(path, false, MAX_FILE, &text);
    return error != 0 ? fail(why, g_strerror(error)) : mqtt_conf_read(conf, text, hostname, why);
}

bool mqtt_conf_load_password(std::string *password, const std::string &credential,
                             const std::string &file, std::string *why)
{
    std::string text;
    std::string path = credential;
    int error = credential.empty() ? ENOENT : read_file(path, true, MAX_PASSWORD, &text);
    if (error == ENOENT) {
        path = file;
        error = file.empty() ? 0 : read_file(path, true, MAX_PASSWORD, &text);
    }
    if (error != 0) {
        return fail_to_read(why, path, error);
    }
    if (text.ends_with('\n')) {
        text.pop_back();
    }
    if (text.find('\0') != std::string::npos) {
        return fail(why, path + ": it contains a NUL byte");
    }
    *password = text;
    return true;
}

bool mqtt_conf_check_files(const MqttConf &conf, std::string *why)
{
    for (const std::string *path : {&conf.ca_file, &conf.cert_file, &conf.key_file}) {
        std::string content;
        const int error =
            path->empty() ? 0 : read_file(*path, path == &conf.key_file, MAX_FILE, &content);
        if (error != 0) {
            return fail_to_read(why, *path, error);
        }
    }
    return true;
}
