#include "card_scan.h"

#include <cerrno>
#include <glib.h>
#include <libudev.h>
#include <unistd.h>

#include "config_file.h"

struct CardScan {
    udev *context;
    udev_monitor *monitor;
};

namespace
{

constexpr const char *CARDS_FILE = "/proc/asound/cards";

/* Exists while udev runs. */
constexpr const char *UDEV_CONTROL = "/run/udev/control";

/*
 * Property that udev's rules for sound cards set together with the other ones. They do that at a
 * second event of the card, "change", so a card that udev knows may still lack them.
 */
constexpr const char *EXAMINED = "SOUND_INITIALIZED";

/* A hundred cards send some thousand events at a time; those that do not fit are lost. */
constexpr int BUFFER_SIZE = 1024 * 1024;

G_DEFINE_AUTOPTR_CLEANUP_FUNC(udev_enumerate, udev_enumerate_unref)
G_DEFINE_AUTOPTR_CLEANUP_FUNC(udev_device, udev_device_unref)

std::string make_text(const char *text)
{
    return text ? text : "";
}

/* Returns the content of a file under /proc; empty if it no longer exists. */
std::string read_text(const std::string &path)
{
    std::string text;
    return config_file_read(path.c_str(), &text) == 0 ? text : "";
}

void read_card(udev_device *device, SoundCardFacts *facts)
{
    udev_list_entry *entry;
    udev_list_entry_foreach(entry, udev_device_get_properties_list_entry(device))
    {
        facts->properties[udev_list_entry_get_name(entry)] =
            make_text(udev_list_entry_get_value(entry));
    }
    facts->id = make_text(udev_device_get_sysattr_value(device, "id"));
    facts->is_on_usb =
        udev_device_get_parent_with_subsystem_devtype(device, "usb", nullptr) != nullptr;
}

/* Adds what udev knows about a card or a PCM. Returns false if udev has not examined the card. */
bool read_device(udev_device *device, std::map<int, SoundCardFacts> *cards)
{
    const std::string name = make_text(udev_device_get_sysname(device));
    int index = 0;
    int pcm = 0;
    if (sound_card_parse_card(name, &index)) {
        (*cards)[index].index = index;
        read_card(device, &(*cards)[index]);
        return (*cards)[index].properties.contains(EXAMINED);
    }
    if (sound_card_parse_pcm(name, &index, &pcm)) {
        (*cards)[index].index = index;
        (*cards)[index].pcms[pcm] = read_text("/proc/asound/card" + std::to_string(index) + "/pcm" +
                                              std::to_string(pcm) + "p/info");
    }
    return true;
}

} // namespace

CardScan *card_scan_new()
{
    auto *scan = g_new0(CardScan, 1);
    scan->context = udev_new();
    /* Without udev, only the kernel sends events. */
    const char *source = access(UDEV_CONTROL, F_OK) == 0 ? "udev" : "kernel";
    int status = scan->context ? 0 : -errno;
    if (scan->context) {
        scan->monitor = udev_monitor_new_from_netlink(scan->context, source);
        status = scan->monitor ? 0 : -errno;
    }
    if (scan->monitor) {
        udev_monitor_set_receive_buffer_size(scan->monitor, BUFFER_SIZE);
        status = udev_monitor_filter_add_match_subsystem_devtype(scan->monitor, "sound", nullptr);
        status = status < 0 ? status : udev_monitor_enable_receiving(scan->monitor);
    }
    if (status < 0) {
        g_critical("%sCannot listen to the events of udev: %s", "", g_strerror(-status));
        card_scan_free(scan);
        return nullptr;
    }
    return scan;
}

void card_scan_free(CardScan *scan)
{
    if (!scan) {
        return;
    }
    udev_monitor_unref(scan->monitor);
    udev_unref(scan->context);
    g_free(scan);
}

int card_scan_get_fd(const CardScan *scan)
{
    return udev_monitor_get_fd(scan->monitor);
}

bool card_scan_take_events(CardScan *scan)
{
    bool happened = false;
    for (;;) {
        errno = 0;
        g_autoptr(udev_device) device = udev_monitor_receive_device(scan->monitor);
        /* ENOBUFS means that events were lost, which does no harm: all cards are read again. */
        if (!device && errno != ENOBUFS && errno != EINTR) {
            return happened;
        }
        happened = true;
    }
}

int card_scan_read(CardScan *scan, std::vector<SoundCard> *cards, bool *is_complete)
{
    std::map<int, SoundCardFacts> facts;
    *is_complete = true;
    g_autoptr(udev_enumerate) list = udev_enumerate_new(scan->context);
    int r = list ? udev_enumerate_add_match_subsystem(list, "sound") : -errno;
    r = r < 0 ? r : udev_enumerate_scan_devices(list);
    if (r < 0) {
        return r;
    }
    udev_list_entry *entry;
    udev_list_entry_foreach(entry, udev_enumerate_get_list_entry(list))
    {
        g_autoptr(udev_device) device =
            udev_device_new_from_syspath(scan->context, udev_list_entry_get_name(entry));
        /* The device may have been removed since the list was made. */
        if (device && !read_device(device, &facts)) {
            *is_complete = false;
        }
    }
    std::map<int, std::string> names = sound_card_read_names(read_text(CARDS_FILE));
    cards->clear();
    for (auto &[index, card] : facts) {
        card.short_name = names[index];
        cards->push_back(sound_card_make(card));
    }
    return 0;
}
