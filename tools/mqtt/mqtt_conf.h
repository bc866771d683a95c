#pragma once

/* The configuration file of sonobrik-mqtt, described in vesk-mqtt.conf(5). */

#include <glib.h>
#include <string>
#include <string_view>
#include <vector>

struct MqttConf {
    /* [broker] */
    std::string host;
    gint64 port = 0; /* mqtt_conf_read() sets the default, which depends on `tls` */
    bool tls = true;
    bool allow_plaintext = false; /* also to a broker on another machine */
    std::string ca_file;          /* empty: the system's certificates */
    std::string cert_file;        /* empty: no client certificate */
    std::string key_file;
    std::string username;
    std::string password_file;
    std::string client_id;
    gint64 keepalive = 30;           /* seconds */
    gint64 session_expiry = 604'800; /* seconds */

    /* [node] */
    std::string prefix = "sonobrik";
    std::string name;
    std::vector<std::string> groups;

    /* [play] */
    gint64 lead = 134;     /* milliseconds from the call to the first sample; see mqtt_lead.h */
    gint64 grace = 10'000; /* milliseconds */
    bool allow_any_location = false;
    gint64 max_payload = 16'384; /* bytes */

    /* [homeassistant] */
    bool discovery = true;
    std::string discovery_prefix = "homeassistant";
    std::string device_name; /* the default is made of `name` */
};

/*
 * Reads `text`, the content of the file, into `conf`, which must be new. `hostname` is the default
 * of the node's name. Returns false and sets `why` if a value is invalid or a key is unknown.
 */
bool mqtt_conf_read(MqttConf *conf, std::string_view text, const std::string &hostname,
                    std::string *why);

/* Reads the file `path` in the same way. */
bool mqtt_conf_load(MqttConf *conf, const char *path, const std::string &hostname,
                    std::string *why);

/* Returns true if `host` can only be this machine. */
bool mqtt_conf_is_local(std::string_view host);

/*
 * Reads a password into `password`: from the file `credential` if it exists, otherwise from
 * `file`. Other users must not be able to read them. Either may be empty. A line feed at the end
 * is not part of the password. Leaves `password` empty if there is none. Returns false and sets
 * `why` on failure.
 */
bool mqtt_conf_load_password(std::string *password, const std::string &credential,
                             const std::string &file, std::string *why);

/* Returns false and sets `why` if a file of a certificate or a key cannot be read, or if other
 * users can read that of the key. */
bool mqtt_conf_check_files(const MqttConf &conf, std::string *why);
