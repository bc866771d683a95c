#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <glib.h>
#include <pthread.h>
#include <sysexits.h>
#include <systemd/sd-daemon.h>
#include <unistd.h>

#include "autoptr.h"
#include "mqtt_bridge.h"
#include "mqtt_conf.h"
#include "mqtt_log.h"

namespace
{

constexpr const char *CONFIGURATION = SONOBRIK_SYSCONFDIR "/vesk/mqtt.conf";

/* The name of the systemd credential that contains the password. */
constexpr const char *PASSWORD = "sonobrik-mqtt.password";

struct Options {
    const char *configuration = CONFIGURATION;
    gboolean only_check = FALSE;
    gboolean show_version = FALSE;
};

std::string get_folder(const char *variable, const char *fallback)
{
    const char *folder = getenv(variable);
    return folder && *folder != '\0' ? folder : fallback;
}

/* Reads the configuration and the password. Exits with EX_CONFIG if one is invalid. */
void load(const Options &options, MqttConf *conf, std::string *password)
{
    const char *path = options.configuration;
    std::string why;
    if (!mqtt_conf_load(conf, path, g_get_host_name(), &why)) {
        mqtt_log(LOG_ERR, "%s: %s", path, why.c_str());
        exit(EX_CONFIG);
    }
    const std::string credentials = get_folder("CREDENTIALS_DIRECTORY", "");
    const std::string credential = credentials.empty() ? "" : credentials + "/" + PASSWORD;
    if (!mqtt_conf_load_password(password, credential, conf->password_file, &why) ||
        !mqtt_conf_check_files(*conf, &why)) {
        mqtt_log(LOG_ERR, "%s", why.c_str());
        exit(EX_CONFIG);
    }
    if (conf->username.empty()) {
        password->clear(); /* the broker expects none */
    }
}

/* Lets SIGTERM and SIGINT end the loop with EXIT_SUCCESS. */
int handle_signals(sd_event *event)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGINT);
    sigaddset(&signals, SIGTERM);
    if (pthread_sigmask(SIG_BLOCK, &signals, nullptr) != 0) {
        return -EINVAL;
    }
    int r = sd_event_add_signal(event, nullptr, SIGINT, nullptr, nullptr);
    if (r >= 0) {
        r = sd_event_add_signal(event, nullptr, SIGTERM, nullptr, nullptr);
    }
    /* A broker that closes the connection must not end the program. */
    return r >= 0 && signal(SIGPIPE, SIG_IGN) == SIG_ERR ? -errno : r;
}

int run(const MqttConf &conf, const std::string &password)
{
    const MqttFolders folders = {
        .state = get_folder("STATE_DIRECTORY", "/var/lib/sonobrik-mqtt"),
        .runtime = get_folder("RUNTIME_DIRECTORY", "/run/sonobrik-mqtt"),
    };
    g_autoptr(sd_event) event = nullptr;
    int r = sd_event_default(&event);
    if (r >= 0) {
        r = handle_signals(event);
    }
    if (r >= 0) {
        r = sd_event_set_watchdog(event, true);
    }
    if (r < 0) {
        mqtt_log(LOG_ERR, "cannot create an event loop: %s", g_strerror(-r));
        return EXIT_FAILURE;
    }
    std::string why;
    MqttBridge *bridge = mqtt_bridge_new(event, &conf, folders, password, &why);
    if (!bridge) {
        mqtt_log(LOG_ERR, "%s", why.c_str());
        return EXIT_FAILURE;
    }
    sd_notify(0, "READY=1");
    r = sd_event_loop(event);
    sd_notify(0, "STOPPING=1");
    const int status = r == 0 ? EXIT_SUCCESS : EXIT_FAILURE;
    if (!mqtt_bridge_free(bridge)) {
        fflush(stderr);
        _exit(status);
    }
    return status;
}

} // namespace

int main(int argc, char **argv)
{
    /* GLib writes the "…" of --help in the charset of the locale. */
    setlocale(LC_CTYPE, "");
    Options options;
    g_autofree char *configuration = nullptr;
    const GOptionEntry entries[] = {
        {"config", 'c', 0, G_OPTION_ARG_FILENAME, &configuration,
         "Read this file instead of " SONOBRIK_SYSCONFDIR "/vesk/mqtt.conf", "FILE"},
        {"check", 0, 0, G_OPTION_ARG_NONE, &options.only_check, "Check the configuration, and exit",
         nullptr},
        {"version", 0, 0, G_OPTION_ARG_NONE, &options.show_version, "Print the version, and exit",
         nullptr},
        {},
    };
    g_autoptr(GOptionContext) context = g_option_context_new(nullptr);
    g_autoptr(GError) error = nullptr;
    g_option_context_set_summary(context, "Plays clips of sonobrik at the command of an MQTT "
                                          "broker.");
    g_option_context_add_main_entries(context, entries, nullptr);
    if (!g_option_context_parse(context, &argc, &argv, &error) || argc > 1) {
        mqtt_log(LOG_ERR, "%s", error ? error->message : "too many arguments");
        return EX_USAGE;
    }
    if (options.show_version) {
        puts("sonobrik-mqtt " SONOBRIK_VERSION);
        return EXIT_SUCCESS;
    }
    options.configuration = configuration ? configuration : CONFIGURATION;
    MqttConf conf;
    std::string password;
    load(options, &conf, &password);
    return options.only_check ? EXIT_SUCCESS : run(conf, password);
}
