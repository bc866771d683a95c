#include "control_service.h"

#include <algorithm>
#include <cerrno>
#include <csignal>
#include <cstdlib>
#include <ctime>
#include <glib.h>
#include <libudev.h>
#include <optional>
#include <set>
#include <sys/epoll.h>
#include <sys/inotify.h>
#include <systemd/sd-bus.h>
#include <systemd/sd-daemon.h>
#include <tuple>
#include <unistd.h>
#include <utility>
#include <vector>

#include "alsa_files.h"
#include "alsa_overrides.h"
#include "alsa_text.h"
#include "card_scan.h"
#include "config_file.h"
#include "control_bus.h"
#include "control_conf.h"
#include "device_state.h"
#include "log_level.h"
#include "platform/util.h"
#include "platform_bus_guard.h"

namespace
{

constexpr uint64_t MSEC = 1000;

/* For how long no event of a card may arrive before the cards are read. */
constexpr uint64_t QUIET_USEC = 500 * MSEC;

/* How long udev may take to examine the first cards. */
constexpr int MAX_UDEV_WAITS = 20; /* times QUIET_USEC */

/* How long the first picture may wait, because the daemon waits for it at boot. */
constexpr uint64_t MAX_START_USEC = 10'000 * MSEC;

/* How long cards may keep coming and going before that is logged. */
constexpr uint64_t UNREST_USEC = 10'000 * MSEC;

/* The administrator's ALSA configuration, beside asound.conf. */
constexpr const char *ALSA_FOLDER = SONOBRIK_SYSCONFDIR "/alsa";
constexpr const char *ALSA_CONF_FOLDER = SONOBRIK_SYSCONFDIR "/alsa/conf.d";

constexpr mode_t FILE_MODE = 0644;
constexpr int FOLDER_MODE = 0755;

struct Service {
    const ControlFiles *files;
    sd_event *event;
    sd_bus *bus;
    CardScan *scan;
    sd_event_source *quiet_timer;
    std::vector<sd_event_source *> watches; /* of the folders that an administrator may change */
    ControlPicture picture; /* on the bus; before it is published, that of the last run */
    bool is_published;
    int udev_waits;
    uint64_t started_at;
    uint64_t unrest_since; /* time of the first event since the cards were last read; 0 if none */
    bool unrest_logged;
    bool has_failed; /* and logged the reason */
    ConfigFileStamp conf_stamp;
    ControlConf conf;
    AlsaFiles alsa_files;
    std::string alsa_text; /* as it was last written */
    std::string state_text;
};

uint64_t get_time()
{
    return static_cast<uint64_t>(g_get_monotonic_time());
}

void log_failure(const char *what, int r)
{
    log_error("%s%s: %s", "", what, g_strerror(-r));
}

/* Reads the configuration if it has changed. After a mistake, the defaults apply. */
void read_conf(Service *service)
{
    const char *path = service->files->conf.c_str();
    const ConfigFileStamp stamp = config_file_stamp(path);
    if (stamp == service->conf_stamp) {
        return;
    }
    service->conf_stamp = stamp;
    service->conf.clear();
    std::string text;
    const int error = config_file_read(path, &text);
    if (error == ENOENT || error == ENOTDIR) {
        return;
    }
    std::string mistake;
    if (error != 0) {
        g_warning("%s%s: %s; the defaults apply", "", path, g_strerror(error));
    } else if (!control_conf_parse(text, &service->conf, &mistake)) {
        g_warning("%s%s:%s; the defaults apply", "", path, mistake.c_str());
    }
}

void read_state(Service *service)
{
    const char *path = service->files->state.c_str();
    std::string reason;
    const int error = config_file_read(path, &service->state_text);
    if (error == ENOENT) {
        return;
    }
    if (error != 0) {
        reason = g_strerror(error);
    } else if (device_state_parse(service->state_text, &service->picture.devices, &reason)) {
        return;
    }
    g_warning("%s%s: %s; the devices get new numbers", "", path, reason.c_str());
}

/* A failure costs the numbers of new devices at the next start, unless a later call succeeds. */
void write_state(Service *service, const DeviceTable &table)
{
    const std::string text = device_state_format(table);
    if (text == service->state_text) {
        return;
    }
    if (!util_write_file_synced(service->files->state.c_str(), text.data(), text.size(),
                                FILE_MODE)) {
        g_warning("%sCannot write %s: %s", "", service->files->state.c_str(), g_strerror(errno));
        return;
    }
    service->state_text = text;
}

/* Returns false if the file cannot be written. The daemon would then not find the devices. */
bool write_alsa(Service *service, const DeviceTable &table)
{
    const std::string text = alsa_text_make(table);
    const char *path = service->files->alsa.c_str();
    if (text == service->alsa_text) {
        return true;
    }
    if (!util_write_file_synced(path, text.data(), text.size(), FILE_MODE)) {
        g_critical("%sCannot write %s: %s", "", path, g_strerror(errno));
        return false;
    }
    service->alsa_text = text;
    return true;
}

const char *describe(const std::string &text)
{
    return text.empty() ? "-" : text.c_str();
}

/* Returns true if a number belongs to another card now, or to the same card at another place. */
bool has_moved(const Device &before, const Device &after)
{
    return std::tie(before.serial, before.path, before.card_id) !=
           std::tie(after.serial, after.path, after.card_id);
}

void log_change(const DeviceTable &before, const DeviceTable &after)
{
    for (const Device &device : after) {
        const Device *previous = device_table_find(before, device.number);
        if (device.plugged_in &&
            (!previous || !previous->plugged_in || has_moved(*previous, device))) {
            g_info("%sAudio device %d is plugged in: %s (serial=%s, path=%s, card=%s)", "",
                   device.number, device.name.c_str(), describe(device.serial),
                   describe(device.path), describe(device.card_id));
        } else if (!device.plugged_in && previous && previous->plugged_in) {
            g_info("%sAudio device %d is unplugged: %s", "", device.number, device.name.c_str());
        }
    }
    if (std::ranges::none_of(after, &Device::plugged_in)) {
        g_info("%sNo audio device is plugged in", "");
    }
}

/* Finds the outputs that the administrator defines in the ALSA configuration. */
void read_overrides(Service *service, ControlPicture *picture)
{
    picture->overrides = alsa_overrides_find(&service->alsa_files,
                                             {service->files->alsa, service->files->default_alsa});
}

/*
 * Returns the picture that the daemon has before the first one of this run is published; the
 * signals tell it what differs. Returns nothing if the daemon does not run, as at boot.
 */
std::optional<ControlPicture> find_known_picture(Service *service, const ControlPicture &next,
                                                 bool had_alsa_file)
{
    if (!had_alsa_file) {
        /* A daemon that was started before the service has the definitions that are shipped. */
        return control_bus_has_daemon(service->bus) ? std::optional<ControlPicture>(std::in_place)
                                                    : std::nullopt;
    }
    ControlPicture known = service->picture;
    /* The file does not contain the outputs, so a device that stayed counts as unchanged. */
    for (Device &device : known.devices) {
        const Device *same = device_table_find(next.devices, device.number);
        if (device.plugged_in && same && same->plugged_in) {
            device.outputs = same->outputs;
        }
    }
    return known;
}

/* Sends the signals of what changed, and remembers the devices. Returns 0 or a negative errno. */
int announce(Service *service, ControlPicture next)
{
    control_bus_change(service->bus, &service->picture, std::move(next));
    /* A service that ends before the state is written sends them again after its restart. */
    const int r = platform_bus_guard_send(service->bus);
    if (r < 0) {
        log_failure("Cannot announce the audio devices", r);
        return r;
    }
    write_state(service, service->picture.devices);
    return 0;
}

/* Publishes the first picture and takes the name. Returns 0 or a negative errno. */
int publish(Service *service, ControlPicture next, bool had_alsa_file)
{
    const std::optional<ControlPicture> known = find_known_picture(service, next, had_alsa_file);
    if (!known) {
        write_state(service, next.devices);
    }
    service->picture = known.value_or(next);
    int r = control_bus_publish(service->bus, &service->picture);
    if (r >= 0) {
        r = control_bus_take_name(service->bus);
    }
    if (r < 0) {
        log_error("%sCannot serve com.vesk.AudioControl: %s", "",
                  r == -EEXIST ? "another program owns the name" : g_strerror(-r));
        return r;
    }
    service->is_published = true;
    r = known ? announce(service, std::move(next)) : 0;
    if (r >= 0) {
        sd_notify(0, "READY=1");
    }
    return r;
}

/* Makes a picture of what is plugged in now, and writes and announces it. */
int refresh(Service *service, const std::vector<SoundCard> &cards)
{
    ControlPicture next = {.devices = service->picture.devices, .overrides = {}};
    device_table_update(&next.devices, cards, service->conf);
    read_overrides(service, &next);
    const bool had_alsa_file = access(service->files->alsa.c_str(), F_OK) == 0;
    if (!write_alsa(service, next.devices)) {
        return -EIO;
    }
    if (!service->is_published) {
        log_change({}, next.devices);
        return publish(service, std::move(next), had_alsa_file);
    }
    if (next.devices != service->picture.devices) {
        log_change(service->picture.devices, next.devices);
    }
    return announce(service, std::move(next));
}

void wait_for_quiet(Service *service)
{
    sd_event_source_set_time_relative(service->quiet_timer, QUIET_USEC);
    sd_event_source_set_enabled(service->quiet_timer, SD_EVENT_ONESHOT);
}

/* Returns true if the first picture must not wait any longer. */
bool is_late(const Service *service)
{
    return !service->is_published && get_time() - service->started_at > MAX_START_USEC;
}

/* Restarts the wait, because an event has arrived. */
void note_unrest(Service *service)
{
    const uint64_t now = get_time();
    if (service->unrest_since == 0) {
        service->unrest_since = now;
    } else if (now - service->unrest_since > UNREST_USEC && !service->unrest_logged) {
        service->unrest_logged = true;
        g_warning("%sA sound card keeps coming and going; changes are announced when that stops",
                  "");
    }
    if (!is_late(service)) {
        wait_for_quiet(service);
    }
}

/*
 * Returns true if the first picture must wait for events. A known card keeps its number, so only a
 * card that is new or not examined yet has to wait for others, which may come before it in the
 * order of numbers.
 */
bool must_wait_for_cards(Service *service, const std::vector<SoundCard> &cards, bool is_complete)
{
    return !service->is_published && service->udev_waits == 0 &&
           (!is_complete || device_table_is_new(service->picture.devices, cards, service->conf));
}

/* Returns true while udev has not examined all cards, for a limited time. */
bool must_wait_for_udev(Service *service, bool is_complete)
{
    udev *context = is_complete ? nullptr : udev_new();
    udev_queue *queue = context ? udev_queue_new(context) : nullptr;
    const bool is_busy = queue && udev_queue_get_queue_is_empty(queue) == 0;
    udev_queue_unref(queue);
    udev_unref(context);
    return is_busy && service->udev_waits < MAX_UDEV_WAITS;
}

int read_cards(Service *service)
{
    bool is_complete = true;
    std::vector<SoundCard> cards;
    const int r = card_scan_read(service->scan, &cards, &is_complete);
    if (r < 0) {
        log_failure("Cannot list the sound cards", r);
        return r;
    }
    read_conf(service);
    const bool must_wait = !is_late(service) && (must_wait_for_cards(service, cards, is_complete) ||
                                                 must_wait_for_udev(service, is_complete));
    service->udev_waits++;
    if (must_wait) {
        wait_for_quiet(service);
        return 0;
    }
    return refresh(service, cards);
}

void free_watches(std::vector<sd_event_source *> *watches)
{
    for (sd_event_source *watch : *watches) {
        sd_event_source_unref(watch);
    }
    watches->clear();
}

/* Returns the folder of the file that `path` leads to, or an empty text if there is none. */
std::string find_real_folder(const std::string &path)
{
    g_autofree char *file = realpath(path.c_str(), nullptr);
    g_autofree char *folder = file ? g_path_get_dirname(file) : nullptr;
    return folder ? folder : "";
}

int handle_folder(sd_event_source *, const struct inotify_event *, void *data);

/*
 * Watches the folders of the files that an administrator may edit. To watch those that appeared
 * since the last call, call it again. If a folder cannot be watched, an edit takes effect with the
 * next event of a card.
 */
void watch_folders(Service *service)
{
    /* IN_ATTRIB: a file that was not readable may have become so. */
    constexpr uint32_t changes = IN_ATTRIB | IN_CLOSE_WRITE | IN_CREATE | IN_DELETE |
                                 IN_MOVED_FROM | IN_MOVED_TO | IN_ONLYDIR;
    const std::string &conf = service->files->conf;
    g_autofree char *conf_folder = g_path_get_dirname(conf.c_str());
    /* The second folder differs from the first if the file is a link. */
    const std::set<std::string> folders = {conf_folder, find_real_folder(conf), SONOBRIK_SYSCONFDIR,
                                           ALSA_FOLDER, ALSA_CONF_FOLDER};
    std::vector<sd_event_source *> previous = std::exchange(service->watches, {});
    for (const std::string &folder : folders) {
        sd_event_source *watch = nullptr;
        const int r = sd_event_add_inotify(service->event, &watch, folder.c_str(), changes,
                                           handle_folder, service);
        if (r >= 0) {
            service->watches.push_back(watch);
        } else if (r != -ENOENT && previous.empty()) { /* only once, not with each event */
            g_warning("%sCannot watch %s: %s", "", folder.c_str(), g_strerror(-r));
        }
    }
    free_watches(&previous);
}

int end(Service *service, int status)
{
    return sd_event_exit(service->event, status);
}

/* The handlers of the event loop. */

int handle_quiet(sd_event_source *, uint64_t, void *data)
{
    auto *service = static_cast<Service *>(data);
    service->unrest_since = 0;
    service->unrest_logged = false;
    service->has_failed = read_cards(service) < 0;
    return service->has_failed ? end(service, EXIT_FAILURE) : 0;
}

int handle_udev(sd_event_source *, int, uint32_t, void *data)
{
    auto *service = static_cast<Service *>(data);
    if (card_scan_take_events(service->scan)) {
        service->udev_waits = service->is_published ? 0 : service->udev_waits;
        note_unrest(service);
    }
    return 0;
}

int handle_folder(sd_event_source *, const struct inotify_event *, void *data)
{
    auto *service = static_cast<Service *>(data);
    /* The folder of the configuration may be new, or another one. */
    watch_folders(service);
    if (config_file_stamp(service->files->conf.c_str()) != service->conf_stamp ||
        alsa_files_changed(service->alsa_files)) {
        wait_for_quiet(service);
    }
    return 0;
}

int handle_signal(sd_event_source *, const struct signalfd_siginfo *, void *data)
{
    return end(static_cast<Service *>(data), EXIT_SUCCESS);
}

int add_sources(Service *service)
{
    sigset_t signals;
    sigemptyset(&signals);
    sigaddset(&signals, SIGTERM);
    sigaddset(&signals, SIGINT);
    sigprocmask(SIG_BLOCK, &signals, nullptr);
    int r = sd_event_add_signal(service->event, nullptr, SIGTERM, handle_signal, service);
    if (r >= 0) {
        r = sd_event_add_signal(service->event, nullptr, SIGINT, handle_signal, service);
    }
    if (r >= 0) {
        r = sd_event_add_io(service->event, nullptr, card_scan_get_fd(service->scan), EPOLLIN,
                            handle_udev, service);
    }
    if (r >= 0) {
        r = sd_event_add_time_relative(service->event, &service->quiet_timer, CLOCK_MONOTONIC,
                                       QUIET_USEC, MSEC, handle_quiet, service);
    }
    if (r >= 0) {
        r = sd_event_source_set_enabled(service->quiet_timer, SD_EVENT_OFF);
    }
    if (r >= 0) {
        r = sd_event_set_watchdog(service->event, true);
    }
    return r;
}

int connect_bus(Service *service)
{
    int r = sd_bus_open_system(&service->bus);
    if (r >= 0) {
        r = platform_bus_guard_setup(service->bus);
    }
    if (r >= 0) {
        r = sd_bus_attach_event(service->bus, service->event, SD_EVENT_PRIORITY_NORMAL);
    }
    if (r >= 0) {
        /* Otherwise the loop waits at its end for a bus that does not read. */
        r = sd_bus_set_close_on_exit(service->bus, 0);
    }
    return r < 0 ? r : sd_bus_set_exit_on_disconnect(service->bus, true);
}

bool make_folder(const std::string &file)
{
    g_autofree char *folder = g_path_get_dirname(file.c_str());
    if (g_mkdir_with_parents(folder, FOLDER_MODE) == 0) {
        return true;
    }
    g_critical("%sCannot make %s: %s", "", folder, g_strerror(errno));
    return false;
}

/* Sets the service up and makes the first picture. Returns false and logs the reason on failure. */
bool start(Service *service)
{
    if (!make_folder(service->files->state) || !make_folder(service->files->alsa)) {
        return false;
    }
    int r = sd_event_default(&service->event);
    if (r < 0) {
        log_failure("Cannot make the event loop", r);
        return false;
    }
    r = connect_bus(service);
    if (r < 0) {
        log_failure("Cannot connect to the system bus", r);
        return false;
    }
    /* Before the cards are read, so that no change is missed. */
    service->scan = card_scan_new();
    if (!service->scan) {
        return false;
    }
    r = add_sources(service);
    if (r < 0) {
        log_failure("Cannot set up the event loop", r);
        return false;
    }
    watch_folders(service);
    read_state(service);
    return read_cards(service) >= 0;
}

void stop(Service *service)
{
    free_watches(&service->watches);
    sd_event_source_unref(service->quiet_timer);
    if (service->bus) {
        sd_bus_set_exit_on_disconnect(service->bus, 0);
    }
    platform_bus_guard_flush(service->bus);
    sd_bus_flush_close_unref(service->bus);
    card_scan_free(service->scan);
    sd_event_unref(service->event);
}

} // namespace

int control_service_run(const ControlFiles &files)
{
    Service service = {};
    service.files = &files;
    service.started_at = get_time();
    service.conf_stamp.error = -1; /* of no file, so that the file is read */
    int status = EXIT_FAILURE;
    if (start(&service)) {
        status = sd_event_loop(service.event);
        if (status != EXIT_SUCCESS && !service.has_failed && sd_bus_is_open(service.bus) <= 0) {
            log_error("%sThe connection of com.vesk.AudioControl to the system bus was lost.", "");
        }
    }
    stop(&service);
    return status == EXIT_SUCCESS ? EXIT_SUCCESS : EXIT_FAILURE;
}
