/*
 * A virtual sound card: an ALSA plugin that plays at the pace of the monotonic clock, into a
 * recording (see recording.h).
 *
 *     pcm_type.clockcard { lib "/path/to/libasound_module_pcm_clockcard.so" }
 *     pcm.audiosink0 {
 *         type plug
 *         slave.pcm { type clockcard folder "/path/to/an/existing/folder" }
 *     }
 *
 * "rate", "channels" and "format" restrict what it accepts. It starts, underruns, pauses, drains
 * and stops like hardware. Only frames whose time has come are recorded, so a stop loses what is
 * still in the buffer. While one of these files exists in the folder, the card misbehaves:
 *
 *     busy   opening fails with EBUSY, as if another program were using the card
 *     gone   everything fails with ENODEV, as if the card were unplugged
 *     stuck  the card plays nothing; it accepts frames until its buffer is full, and then records
 *            the event "full"
 *
 * It needs no thread: programs do not change the buffer between the position last reported to ALSA
 * and the write position, so the played frames are copied whenever ALSA asks for the position.
 */

#include "recording.h"

#include <algorithm>
#include <alsa/asoundlib.h>
#include <alsa/pcm_external.h>
#include <array>
#include <cerrno>
#include <cstring>
#include <ctime>
#include <new>
#include <sys/timerfd.h>
#include <unistd.h>

namespace
{

constexpr unsigned MIN_RATE = 8000;
constexpr unsigned MAX_RATE = 192000;
constexpr unsigned MAX_CHANNELS = 8;
constexpr unsigned MIN_PERIOD_BYTES = 64;
constexpr unsigned MAX_BUFFER_BYTES = 8 * 1024 * 1024;
constexpr unsigned MAX_PERIODS = 1024;

/* How often a stuck card checks whether it still is, while a program waits for it. */
constexpr uint64_t STUCK_POLL_TIME = 20000000;

constexpr uint32_t FAST_PACE = 20;

constexpr std::array<unsigned, 3> FORMATS = {
    SND_PCM_FORMAT_S16_LE,
    SND_PCM_FORMAT_S24_3LE,
    SND_PCM_FORMAT_S32_LE,
};

struct Settings {
    const char *folder;
    long rate;
    long channels;
    const char *format;
};

struct Card {
    snd_pcm_ioplug_t io;
    Recording recording;
    int timer; /* programs poll it: readable when there is room for `avail_min` frames */
    snd_pcm_uframes_t avail_min;
    snd_pcm_uframes_t boundary; /* where ALSA's positions wrap */
    bool running;
    uint32_t pace;           /* how many times as fast as the monotonic clock the card plays */
    bool told_full;          /* since the card was prepared */
    uint64_t start_time;     /* when the clock last started */
    uint64_t start_position; /* the position at that time */
    uint64_t position;       /* frames played and recorded since the card was prepared */
};

Card *get_card(snd_pcm_ioplug_t *io)
{
    return static_cast<Card *>(io->private_data);
}

/* Returns the number of frames that are written but not yet played. */
snd_pcm_uframes_t get_filled(Card *card)
{
    const snd_pcm_uframes_t filled =
        snd_pcm_ioplug_hw_avail(&card->io, card->io.hw_ptr, card->io.appl_ptr);
    const snd_pcm_uframes_t untold = card->position % card->boundary - card->io.hw_ptr;
    return filled - std::min(filled, untold);
}

void run_clock(Card *card)
{
    card->running = true;
    card->pace = recording_has_flag(&card->recording, "fast") ? FAST_PACE : 1;
    card->start_time = recording_get_time();
    card->start_position = card->position;
}

/*
 * Makes the poll descriptor readable: at once if there is `room`, else when the clock will have
 * made room. It stays readable until there is no room, so it wakes a program that has not written
 * yet.
 */
void arm_timer(Card *card)
{
    const snd_pcm_uframes_t filled = get_filled(card);
    const snd_pcm_uframes_t room = card->io.buffer_size - std::min(card->io.buffer_size, filled);
    uint64_t missing = card->avail_min > room ? card->avail_min - room : 0;
    if (card->io.state == SND_PCM_STATE_DRAINING)
        missing = filled;

    uint64_t time = 1; /* in the past, so readable at once */
    if (missing > 0 && recording_has_flag(&card->recording, "stuck")) {
        if (!card->told_full)
            recording_add_event(&card->recording, "full");
        card->told_full = true;
        time = recording_get_time() + STUCK_POLL_TIME;
    } else if (missing > 0 && card->running)
        time = card->start_time +
               recording_frames_to_time(card->position - card->start_position + missing,
                                        card->io.rate * card->pace);
    else if (missing > 0 && card->io.state != SND_PCM_STATE_DISCONNECTED)
        time = 0; /* never, because the clock does not run */

    itimerspec when = {};
    when.it_value.tv_sec = static_cast<time_t>(time / 1000000000);
    when.it_value.tv_nsec = static_cast<long>(time % 1000000000);
    timerfd_settime(card->timer, TFD_TIMER_ABSTIME, &when, nullptr);
}

int record_frames(Card *card, uint64_t count)
{
    const snd_pcm_channel_area_t *area = snd_pcm_ioplug_mmap_areas(&card->io);
    while (count > 0) {
        const uint64_t offset = card->position % card->boundary % card->io.buffer_size;
        const uint64_t chunk = std::min<uint64_t>(count, card->io.buffer_size - offset);
        const char *frames =
            static_cast<const char *>(area->addr) + (area->first + offset * area->step) / 8;
        const int r = recording_append(&card->recording, frames, chunk);
        if (r < 0)
            return r;
        card->position += chunk;
        count -= chunk;
    }
    return 0;
}

void disconnect(Card *card)
{
    card->running = false;
    snd_pcm_ioplug_set_state(&card->io, SND_PCM_STATE_DISCONNECTED);
}

/*
 * Records the frames whose time has come. Returns false if the clock is past the last written
 * frame: that is the end of a drain, and an underrun otherwise.
 */
bool play(Card *card)
{
    if (!card->running)
        return true;
    if (recording_has_flag(&card->recording, "stuck")) {
        run_clock(card); /* once freed, the card continues from here */
        return true;
    }
    const uint64_t passed = recording_time_to_frames(recording_get_time() - card->start_time,
                                                     card->io.rate * card->pace) -
                            (card->position - card->start_position);
    const snd_pcm_uframes_t filled = get_filled(card);
    const int r = record_frames(card, std::min<uint64_t>(passed, filled));
    if (r < 0) {
        SNDERR("the recording cannot be written: %s", strerror(-r));
        disconnect(card);
    }
    return passed <= filled;
}

void add_event(Card *card, const char *event)
{
    recording_add_event(&card->recording, "%s file=%03u frame=%llu", event, card->recording.number,
                        static_cast<unsigned long long>(card->recording.frames));
}

bool is_gone(Card *card)
{
    return recording_has_flag(&card->recording, "gone");
}

int card_start(snd_pcm_ioplug_t *io)
{
    Card *card = get_card(io);
    if (is_gone(card)) {
        /* ALSA drops the error of a start that follows a partial write. */
        disconnect(card);
        arm_timer(card);
        return -ENODEV;
    }
    run_clock(card);
    add_event(card, "start");
    arm_timer(card);
    return 0;
}

int card_stop(snd_pcm_ioplug_t *io)
{
    Card *card = get_card(io);
    if (card->running) {
        play(card);
        card->running = false;
        add_event(card, "stop");
    }
    return 0;
}

snd_pcm_sframes_t card_pointer(snd_pcm_ioplug_t *io)
{
    Card *card = get_card(io);
    if (is_gone(card)) {
        if (card->running)
            add_event(card, "gone");
        disconnect(card);
    } else if (!play(card) && io->state == SND_PCM_STATE_RUNNING) {
        card->running = false;
        add_event(card, "underrun");
        arm_timer(card);
        return -EPIPE;
    }
    arm_timer(card);
    return static_cast<snd_pcm_sframes_t>(card->position % card->boundary);
}

int card_hw_params(snd_pcm_ioplug_t *io, snd_pcm_hw_params_t *)
{
    Card *card = get_card(io);
    if (is_gone(card))
        return -ENODEV;
    const RecordingFormat format = {
        .rate = io->rate,
        .channels = io->channels,
        .bits = static_cast<uint32_t>(snd_pcm_format_physical_width(io->format)),
    };
    const int r = recording_set_format(&card->recording, &format);
    if (r < 0)
        return r;
    recording_add_event(&card->recording,
                        "params file=%03u rate=%u channels=%u format=%s period=%lu buffer=%lu",
                        card->recording.number, io->rate, io->channels,
                        snd_pcm_format_name(io->format), io->period_size, io->buffer_size);
    return 0;
}

int card_sw_params(snd_pcm_ioplug_t *io, snd_pcm_sw_params_t *params)
{
    Card *card = get_card(io);
    const int r = snd_pcm_sw_params_get_avail_min(params, &card->avail_min);
    return r < 0 ? r : snd_pcm_sw_params_get_boundary(params, &card->boundary);
}

int card_prepare(snd_pcm_ioplug_t *io)
{
    Card *card = get_card(io);
    if (is_gone(card))
        return -ENODEV;
    card->running = false;
    card->told_full = false;
    card->position = 0;
    arm_timer(card);
    return 0;
}

int card_pause(snd_pcm_ioplug_t *io, int enable)
{
    Card *card = get_card(io);
    if (enable) {
        play(card);
        card->running = false;
    } else {
        run_clock(card);
    }
    add_event(card, enable ? "pause" : "resume");
    arm_timer(card);
    return 0;
}

/* ALSA does not hold its lock here, so the state is read with calls that take the lock. */
int card_poll_revents(snd_pcm_ioplug_t *io, pollfd *fds, unsigned int count,
                      unsigned short *revents)
{
    *revents = 0;
    if (count != 1 || !(fds[0].revents & POLLIN))
        return 0;
    const snd_pcm_sframes_t avail = snd_pcm_avail_update(io->pcm);
    const snd_pcm_state_t state = snd_pcm_state(io->pcm);
    if (avail < 0 || state == SND_PCM_STATE_XRUN || state == SND_PCM_STATE_DISCONNECTED)
        *revents = POLLOUT | POLLERR;
    else if (state == SND_PCM_STATE_DRAINING)
        *revents = 0;
    else if (static_cast<snd_pcm_uframes_t>(avail) >= get_card(io)->avail_min)
        *revents = POLLOUT;
    return 0;
}

void free_card(Card *card)
{
    recording_close(&card->recording);
    if (card->timer >= 0)
        close(card->timer);
    delete card;
}

int card_close(snd_pcm_ioplug_t *io)
{
    Card *card = get_card(io);
    recording_add_event(&card->recording, "close");
    free_card(card);
    return 0;
}

constexpr snd_pcm_ioplug_callback_t make_callbacks()
{
    snd_pcm_ioplug_callback_t callbacks = {};
    callbacks.start = card_start;
    callbacks.stop = card_stop;
    callbacks.pointer = card_pointer;
    callbacks.close = card_close;
    callbacks.hw_params = card_hw_params;
    callbacks.sw_params = card_sw_params;
    callbacks.prepare = card_prepare;
    callbacks.pause = card_pause;
    callbacks.poll_revents = card_poll_revents;
    return callbacks;
}

constexpr snd_pcm_ioplug_callback_t CALLBACKS = make_callbacks();

int read_settings(snd_config_t *conf, Settings *settings)
{
    snd_config_iterator_t i, next;
    snd_config_for_each(i, next, conf)
    {
        snd_config_t *entry = snd_config_iterator_entry(i);
        const char *id = nullptr;
        int r = snd_config_get_id(entry, &id);
        if (r < 0)
            return r;
        if (strcmp(id, "type") == 0 || strcmp(id, "comment") == 0 || strcmp(id, "hint") == 0)
            continue;
        if (strcmp(id, "folder") == 0)
            r = snd_config_get_string(entry, &settings->folder);
        else if (strcmp(id, "rate") == 0)
            r = snd_config_get_integer(entry, &settings->rate);
        else if (strcmp(id, "channels") == 0)
            r = snd_config_get_integer(entry, &settings->channels);
        else if (strcmp(id, "format") == 0)
            r = snd_config_get_string(entry, &settings->format);
        else
            r = -EINVAL;
        if (r < 0) {
            SNDERR("clockcard: bad field %s", id);
            return r;
        }
    }
    if (!settings->folder) {
        SNDERR("clockcard: no folder");
        return -EINVAL;
    }
    return 0;
}

int set_constraints(snd_pcm_ioplug_t *io, const Settings *settings)
{
    /* The plugin `plug` converts formats only if it can map the slave's buffer. */
    constexpr std::array<unsigned, 2> accesses = {SND_PCM_ACCESS_MMAP_INTERLEAVED,
                                                  SND_PCM_ACCESS_RW_INTERLEAVED};
    int r = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_ACCESS, accesses.size(),
                                          accesses.data());
    if (r < 0)
        return r;
    if (settings->format) {
        const auto format = static_cast<unsigned>(snd_pcm_format_value(settings->format));
        if (std::find(FORMATS.begin(), FORMATS.end(), format) == FORMATS.end()) {
            SNDERR("clockcard: format %s cannot be recorded", settings->format);
            return -EINVAL;
        }
        r = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, 1, &format);
    } else {
        r = snd_pcm_ioplug_set_param_list(io, SND_PCM_IOPLUG_HW_FORMAT, FORMATS.size(),
                                          FORMATS.data());
    }
    if (r < 0)
        return r;

    const auto rate = static_cast<unsigned>(settings->rate);
    const auto channels = static_cast<unsigned>(settings->channels);
    const struct {
        int type;
        unsigned min;
        unsigned max;
    } ranges[] = {
        {SND_PCM_IOPLUG_HW_RATE, rate ? rate : MIN_RATE, rate ? rate : MAX_RATE},
        {SND_PCM_IOPLUG_HW_CHANNELS, channels ? channels : 1, channels ? channels : MAX_CHANNELS},
        {SND_PCM_IOPLUG_HW_PERIOD_BYTES, MIN_PERIOD_BYTES, MAX_BUFFER_BYTES / 2},
        {SND_PCM_IOPLUG_HW_BUFFER_BYTES, 2 * MIN_PERIOD_BYTES, MAX_BUFFER_BYTES},
        {SND_PCM_IOPLUG_HW_PERIODS, 2, MAX_PERIODS},
    };
    for (const auto &range : ranges) {
        r = snd_pcm_ioplug_set_param_minmax(io, range.type, range.min, range.max);
        if (r < 0)
            return r;
    }
    return 0;
}

int open_devices(Card *card, const Settings *settings)
{
    int r = recording_open(&card->recording, settings->folder);
    if (r < 0)
        return r;
    if (is_gone(card))
        return -ENODEV;
    if (recording_has_flag(&card->recording, "busy"))
        return -EBUSY;
    card->timer = timerfd_create(CLOCK_MONOTONIC, TFD_NONBLOCK | TFD_CLOEXEC);
    if (card->timer < 0)
        return -errno;
    return recording_add_event(&card->recording, "open");
}

} // namespace

extern "C" {

SND_PCM_PLUGIN_DEFINE_FUNC(clockcard)
{
    (void)root;
    Settings settings = {};
    int r = read_settings(conf, &settings);
    if (r < 0)
        return r;
    if (stream != SND_PCM_STREAM_PLAYBACK)
        return -EINVAL;

    Card *card = new (std::nothrow) Card{};
    if (!card)
        return -ENOMEM;
    card->timer = -1;
    card->avail_min = 1;
    card->boundary = 1;
    r = open_devices(card, &settings);
    if (r < 0) {
        free_card(card);
        return r;
    }

    card->io.version = SND_PCM_IOPLUG_VERSION;
    card->io.name = "Sound card paced by the clock";
    card->io.flags = SND_PCM_IOPLUG_FLAG_MONOTONIC | SND_PCM_IOPLUG_FLAG_BOUNDARY_WA;
    card->io.poll_fd = card->timer;
    card->io.poll_events = POLLIN;
    card->io.mmap_rw = 1; /* programs write directly to the card's buffer */
    card->io.callback = &CALLBACKS;
    card->io.private_data = card;
    r = snd_pcm_ioplug_create(&card->io, name, stream, mode);
    if (r < 0) {
        free_card(card);
        return r;
    }
    r = set_constraints(&card->io, &settings);
    if (r < 0) {
        snd_pcm_ioplug_delete(&card->io); /* closes the card too */
        return r;
    }
    *pcmp = card->io.pcm;
    return 0;
}

SND_PCM_PLUGIN_SYMBOL(clockcard);
}
