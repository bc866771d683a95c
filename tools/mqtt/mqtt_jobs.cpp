#include "mqtt_jobs.h"

#include <algorithm>
#include <list>
#include <utility>
#include <vector>

#include "autoptr.h"
#include "client_clips.h"
#include "mqtt_bridge_data.h"
#include "mqtt_catch_up.h"
#include "mqtt_clock.h"
#include "mqtt_outbox.h"
#include "mqtt_save.h"
#include "mqtt_siren.h"
#include "mqtt_topics.h"

namespace
{

/* How many plays, and how many stops, may be waiting or executed at the same time. */
constexpr size_t MAX_JOBS = 64;
constexpr size_t MAX_STOPS = 16;

/* When to ask again if the daemon went away while it was asked about a clip, in microseconds. It
 * restarts within this time when a sound card is plugged in. */
constexpr guint64 RETRY_DELAY = 1'000'000;

void set_alarm(MqttBridge *bridge);
void play(MqttBridge *bridge, MqttJob *job);

MqttJob *find_job(MqttBridge *bridge, gint64 number)
{
    const auto found = std::ranges::find(bridge->store.jobs, number, &MqttJob::number);
    return found == bridge->store.jobs.end() ? nullptr : &*found;
}

/* Sends the last answer of a job, and removes the job. */
void finish(MqttBridge *bridge, MqttJob *job, MqttStatus status, const std::string &text)
{
    mqtt_outbox_answer(bridge, *job, status, text);
    bridge->store.jobs.remove_if(
        [number = job->number](const MqttJob &other) { return other.number == number; });
    bridge->must_save = true;
    set_alarm(bridge);
}

/* Answers a command that does not become a job. */
void refuse(MqttBridge *bridge, const MqttJob &job, const std::string &why)
{
    unsigned dropped = 0;
    if (mqtt_log_limit_pass(&bridge->refusals, g_get_monotonic_time(), &dropped)) {
        mqtt_log(LOG_WARNING, "refused a command on %s: %s; %u more were refused before",
                 job.topic.c_str(), why.c_str(), dropped);
    }
    mqtt_outbox_answer(bridge, job, MQTT_REFUSED, why);
}

std::string describe_delay(gint64 milliseconds)
{
    return std::to_string(milliseconds / 1000) + "." + std::to_string(milliseconds % 1000 / 100) +
           " s";
}

/* Returns the text of the daemon's error, or "NOK", the text of its other errors, if it is empty.
 */
std::string get_text(const GError *error)
{
    return *error->message != '\0' ? error->message : "NOK";
}

/* Playing */

/* Returns the time at which the job should play: the given one, or that of its arrival. */
gint64 get_due(const MqttJob &job)
{
    return job.command.at != CLIENT_NOT_GIVEN ? job.command.at : job.received;
}

/* Finishes the job and returns true if it is too late to play it. */
bool finish_if_late(MqttBridge *bridge, MqttJob *job)
{
    const gint64 now = mqtt_clock_now();
    if (job->expires > 0 && now > job->expires && job->command.at == CLIENT_NOT_GIVEN) {
        finish(bridge, job, MQTT_EXPIRED, "The message has expired.");
        return true;
    }
    const gint64 delay = now - get_due(*job);
    if (delay > bridge->conf->grace && (job->command.at != CLIENT_NOT_GIVEN || job->expires == 0)) {
        finish(bridge, job, MQTT_LATE,
               "The command is " + describe_delay(delay) + " late; nothing was played.");
        return true;
    }
    return false;
}

void stop_daemon(MqttBridge *bridge)
{
    mqtt_daemon_call(bridge->daemon, &CLIENT_SONOBRIK, "StopPlayingClip", "",
                     [](sd_bus_message *, const GError *) {});
}

void on_played(MqttBridge *bridge, MqttJob *job, const GError *error)
{
    if (error) {
        finish(bridge, job, MQTT_FAILED, get_text(error));
        return;
    }
    mqtt_lead_add(&bridge->lead, g_get_monotonic_time() - job->call_time);
    mqtt_siren_set(bridge, *job);
    /* If the daemon was stuck, it may have started the clip much too late. */
    if (mqtt_clock_now() - get_due(*job) > 2 * bridge->conf->grace && finish_if_late(bridge, job)) {
        stop_daemon(bridge);
        return;
    }
    finish(bridge, job, MQTT_PLAYING, "OK");
}

void call_play(MqttBridge *bridge, MqttJob *job)
{
    const ClientPlay request = {
        .location = job->location.c_str(),
        .volume = job->command.volume,
        .repeat = job->command.repeat,
        .output = job->command.output,
    };
    g_autofree char *options = client_play_options(&request);
    job->state = MQTT_JOB_PLAYING;
    job->call_lead = mqtt_lead_get(bridge->lead);
    job->called_at = mqtt_clock_now();
    job->call_time = g_get_monotonic_time();
    mqtt_save_quickly(bridge); /* so that the next process does not play it again */
    mqtt_daemon_call(bridge->daemon, &CLIENT_SONOBRIK, "StartPlayingClip", options,
                     [bridge, number = job->number](sd_bus_message *, const GError *error) {
                         MqttJob *played = find_job(bridge, number);
                         if (played) {
                             on_played(bridge, played, error);
                         }
                     });
}

void wait_for_time(MqttBridge *bridge, MqttJob *job)
{
    job->state = MQTT_JOB_WAITING;
    mqtt_outbox_answer(bridge, *job, MQTT_SCHEDULED, "OK");
    set_alarm(bridge);
}

/*
 * Starts the job again later, and returns true, if `error` tells that the daemon went away. Does so
 * once for each job. Not for a call that plays: the daemon may have started the clip.
 */
bool retry_later(MqttBridge *bridge, MqttJob *job, const GError *error)
{
    if (job->was_retried || !g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_NO_DAEMON)) {
        return false;
    }
    job->was_retried = true;
    job->state = MQTT_JOB_RETRYING;
    sd_event_source_set_time_relative(bridge->retry, RETRY_DELAY);
    sd_event_source_set_enabled(bridge->retry, SD_EVENT_ONESHOT);
    return true;
}

void on_checked(MqttBridge *bridge, MqttJob *job, const GError *error)
{
    if (!error) {
        job->needs_check = false;
        play(bridge, job);
    } else if (!retry_later(bridge, job, error)) {
        finish(bridge, job, MQTT_FAILED, get_text(error));
    }
}

void check(MqttBridge *bridge, MqttJob *job)
{
    job->state = MQTT_JOB_CHECKING;
    mqtt_daemon_call(bridge->daemon, &CLIENT_SONOBRIK, "SupportedFile", job->location.c_str(),
                     [bridge, number = job->number](sd_bus_message *, const GError *error) {
                         MqttJob *checked = find_job(bridge, number);
                         if (checked) {
                             on_checked(bridge, checked, error);
                         }
                     });
}

/* Plays a job whose location is known: at once, or at its time. */
void play(MqttBridge *bridge, MqttJob *job)
{
    if (finish_if_late(bridge, job)) {
        return;
    }
    const gint64 lead = mqtt_lead_get(bridge->lead) / 1000;
    const bool waits = job->command.at != CLIENT_NOT_GIVEN &&
                       mqtt_lead_decide(job->command.at, mqtt_clock_now(), lead,
                                        bridge->conf->grace) == MQTT_DUE_WAIT;
    /* Checks the file of a scheduled job in advance, so that the answer comes early. A pattern
     * cannot be checked. */
    if (job->needs_check || (waits && job->state != MQTT_JOB_CHECKING &&
                             !client_play_has_wildcards(job->location.c_str()))) {
        check(bridge, job);
    } else if (waits) {
        wait_for_time(bridge, job);
    } else {
        call_play(bridge, job);
    }
}

const ClientClip *find_clip(const MqttCommand &command, GPtrArray *clips, GError **error)
{
    if (!command.is_siren && !command.clip.empty()) {
        return client_clips_find(clips, command.clip.c_str(), error);
    }
    const ClientClip *found = nullptr;
    if (command.is_siren) {
        MqttState state;
        mqtt_state_set_clips(&state, clips);
        const MqttClip *clip = mqtt_state_find_tone(state, command.tone);
        found = clip ? client_clips_get(clips, clip->number) : nullptr;
    }
    for (guint i = 0; i < clips->len && !command.is_siren; i++) {
        const auto *clip = static_cast<const ClientClip *>(g_ptr_array_index(clips, i));
        if (command.clip_name != clip->name) {
            continue;
        }
        if (found) {
            g_set_error(error, CLIENT_ERROR, CLIENT_ERROR_NO_CLIP,
                        "several clips are named '%s'; use the number", clip->name);
            return nullptr;
        }
        found = clip;
    }
    if (!found) {
        g_set_error(error, CLIENT_ERROR, CLIENT_ERROR_NO_CLIP, "no such clip: '%s'",
                    command.is_siren ? command.tone.c_str() : command.clip_name.c_str());
    }
    return found;
}

void on_clips_for_job(MqttBridge *bridge, MqttJob *job, GPtrArray *clips, const GError *failure)
{
    g_autoptr(GError) error = nullptr;
    const ClientClip *clip = clips ? find_clip(job->command, clips, &error) : nullptr;
    if (!clips && retry_later(bridge, job, failure)) {
        return;
    }
    if (!clip) {
        finish(bridge, job, MQTT_FAILED, get_text(clips ? error : failure));
        return;
    }
    job->clip = clip->number;
    job->location = clip->location;
    if (job->command.duration != CLIENT_NOT_GIVEN) {
        job->command.repeat =
            mqtt_state_count_repeats(bridge->state, clip->location, job->command.duration * 1000);
    }
    if (job->location.empty()) {
        finish(bridge, job, MQTT_FAILED, "the clip has no file");
        return;
    }
    /* A stored clip must play its own file, but if that is missing, the daemon treats its name as a
     * pattern. */
    job->needs_check = client_play_has_wildcards(clip->location);
    play(bridge, job);
}

void start_play(MqttBridge *bridge, MqttJob *job)
{
    if (!job->command.location.empty()) {
        std::string why;
        if (mqtt_command_find_location(job->command.location, bridge->conf->allow_any_location,
                                       &job->location, &why)) {
            play(bridge, job);
        } else {
            job->location.clear();
            finish(bridge, job, MQTT_REFUSED, why);
        }
        return;
    }
    job->state = MQTT_JOB_FINDING;
    mqtt_daemon_list(bridge->daemon, false,
                     [bridge, number = job->number](GPtrArray *clips, const GError *error) {
                         MqttJob *found = find_job(bridge, number);
                         if (found) {
                             on_clips_for_job(bridge, found, clips, error);
                         }
                     });
}

/* Cancels all plays that were not passed to the daemon yet. */
void cancel_plays(MqttBridge *bridge)
{
    std::vector<gint64> numbers;
    for (const MqttJob &job : bridge->store.jobs) {
        if (job.command.kind == MQTT_TOPIC_PLAY && job.state != MQTT_JOB_PLAYING) {
            numbers.push_back(job.number);
        }
    }
    for (const gint64 number : numbers) {
        finish(bridge, find_job(bridge, number), MQTT_CANCELLED, "A stop came before its time.");
    }
}

void start_stop(MqttBridge *bridge, MqttJob *job)
{
    cancel_plays(bridge);
    mqtt_siren_forget(bridge);
    job->state = MQTT_JOB_STOPPING;
    mqtt_daemon_call(bridge->daemon, &CLIENT_SONOBRIK, "StopPlayingClip", "",
                     [bridge, number = job->number](sd_bus_message *, const GError *error) {
                         MqttJob *stopped = find_job(bridge, number);
                         if (stopped) {
                             finish(bridge, stopped, error ? MQTT_FAILED : MQTT_STOPPED,
                                    error ? get_text(error) : "OK");
                         }
                     });
}

void start(MqttBridge *bridge, MqttJob *job)
{
    if (job->command.kind == MQTT_TOPIC_PLAY) {
        start_play(bridge, job);
    } else {
        start_stop(bridge, job);
    }
}

/* The alarm */

/* Returns when the daemon has to be called, in microseconds. */
gint64 get_call_time(const MqttBridge *bridge, const MqttJob &job)
{
    return job.command.at * 1000 - mqtt_lead_get(bridge->lead);
}

void set_alarm(MqttBridge *bridge)
{
    gint64 first = G_MAXINT64;
    for (const MqttJob &job : bridge->store.jobs) {
        if (job.state == MQTT_JOB_WAITING) {
            first = std::min(first, get_call_time(bridge, job));
        }
    }
    if (first == G_MAXINT64) {
        sd_event_source_set_enabled(bridge->alarm, SD_EVENT_OFF);
        return;
    }
    sd_event_source_set_time(bridge->alarm, static_cast<guint64>(std::max<gint64>(first, 0)));
    sd_event_source_set_enabled(bridge->alarm, SD_EVENT_ONESHOT);
}

/* Commands */

/* Sets the command of a job from its topic and payload. */
bool read_command(const MqttBridge *bridge, MqttJob *job, std::string *why)
{
    job->command.kind = mqtt_topics_find(*bridge->conf, job->topic, &job->command.group);
    return job->command.kind == MQTT_TOPIC_SIREN
               ? mqtt_command_read_siren(&job->command, job->payload, why)
               : mqtt_command_read(&job->command, job->payload, why);
}

/* Returns true if the broker may have kept the command for too long. The command's age is not
 * known, but it cannot have been waiting since before the last packet of the previous connection.
 */
bool may_be_stale(const MqttBridge *bridge, const MqttMessage &message, const MqttCommand &command)
{
    return mqtt_catch_up_is_active(bridge) && command.at == CLIENT_NOT_GIVEN &&
           message.expiry < 0 &&
           (bridge->away == MQTT_UNKNOWN || bridge->away > bridge->conf->grace);
}

/* Adds a job to the store, and returns it there. */
MqttJob *add_job(MqttBridge *bridge, const MqttJob &job)
{
    bridge->store.jobs.push_back(job);
    bridge->store.jobs.back().number = ++bridge->last_number;
    return &bridge->store.jobs.back();
}

/* Returns true if another command can be accepted. Stops have room of their own: they must work
 * even if the daemon does not answer any more. */
bool has_room(const MqttBridge *bridge, const MqttCommand &command)
{
    const bool is_stop = command.kind == MQTT_TOPIC_STOP;
    const auto same = std::ranges::count_if(bridge->store.jobs, [is_stop](const MqttJob &job) {
        return (job.command.kind == MQTT_TOPIC_STOP) == is_stop;
    });
    return static_cast<size_t>(same) < (is_stop ? MAX_STOPS : MAX_JOBS);
}

bool is_duplicate(const MqttBridge *bridge, const MqttCommand &command, gint64 now)
{
    /* The memory may have forgotten a command that is still waiting for its time. */
    return !command.id.empty() &&
           (mqtt_memory_has(bridge->store.memory, command.id, now) ||
            std::ranges::any_of(bridge->store.jobs, [&command](const MqttJob &job) {
                return job.command.id == command.id;
            }));
}

/* Executes a valid command. */
void execute(MqttBridge *bridge, const MqttMessage &message, const MqttJob &job)
{
    const MqttCommand &command = job.command;
    const gint64 now = job.received;
    if (command.kind == MQTT_TOPIC_PING) {
        mqtt_outbox_answer(bridge, job, MQTT_PONG, "OK");
        return;
    }
    if (is_duplicate(bridge, command, now)) {
        mqtt_outbox_answer(bridge, job, MQTT_DUPLICATE,
                           "A command with this id was received before.");
        return;
    }
    if (command.at != CLIENT_NOT_GIVEN &&
        mqtt_lead_decide(command.at, now, 0, bridge->conf->grace) == MQTT_DUE_FAR) {
        refuse(bridge, job, "'at' is more than 7 days away.");
        return;
    }
    if (!has_room(bridge, command)) {
        refuse(bridge, job, "Too many commands are waiting.");
        return;
    }
    /* Only now: a refused command may be sent again with its id. */
    if (!command.id.empty()) {
        mqtt_memory_add(&bridge->store.memory, command.id, std::max(now, command.at));
        bridge->must_save = bridge->must_be_durable = true;
    }
    if (job.expires > 0 && job.expires <= now && command.at == CLIENT_NOT_GIVEN) {
        mqtt_outbox_answer(bridge, job, MQTT_EXPIRED, "The message has expired.");
        return;
    }
    if (may_be_stale(bridge, message, command)) {
        mqtt_outbox_answer(
            bridge, job, MQTT_LATE,
            bridge->away == MQTT_UNKNOWN
                ? "The command may be old: the broker kept it while the node was away."
                : "The command may be " + describe_delay(bridge->away) +
                      " old: the broker kept it while the node was away.");
        return;
    }
    bridge->must_save = bridge->must_be_durable = true;
    start(bridge, add_job(bridge, job));
}

/* Returns when the message expires, in Unix milliseconds, or 0 for never. */
gint64 get_expiry(const MqttBridge *bridge, const MqttMessage &message, gint64 now)
{
    if (message.expiry < 0) {
        return 0;
    }
    /* The broker does not count the time in which the message waited to be read. */
    const gint64 held_up = mqtt_catch_up_is_active(bridge) ? bridge->held_up : 0;
    return std::max<gint64>(now + message.expiry * 1000 - held_up, 1);
}

/* Executes a message with a command, or refuses it. */
void receive(MqttBridge *bridge, const MqttMessage &message)
{
    MqttJob job;
    job.topic = message.topic;
    job.response_topic = message.response_topic;
    job.correlation = message.correlation;
    job.has_correlation = message.has_correlation;
    job.received = mqtt_clock_now();
    job.expires = get_expiry(bridge, message, job.received);
    job.command.kind = mqtt_topics_find(*bridge->conf, job.topic, &job.command.group);
    if (message.payload.size() > static_cast<size_t>(bridge->conf->max_payload)) {
        refuse(bridge, job,
               "The payload is larger than " + std::to_string(bridge->conf->max_payload) +
                   " bytes.");
        return;
    }
    if (message.retained) {
        refuse(bridge, job, "A command must not be retained.");
        return;
    }
    job.payload = message.payload;
    std::string why;
    if (!read_command(bridge, &job, &why)) {
        refuse(bridge, job, why);
        return;
    }
    execute(bridge, message, job);
}

} // namespace

void mqtt_jobs_receive(MqttBridge *bridge, const MqttMessage &message)
{
    receive(bridge, message);
    mqtt_catch_up_note_command(bridge);
}

void mqtt_jobs_resume(MqttBridge *bridge)
{
    const std::list<MqttJob> jobs = std::move(bridge->store.jobs);
    bridge->store.jobs.clear();
    for (const MqttJob &old : jobs) {
        MqttJob job = old;
        std::string why;
        if (!read_command(bridge, &job, &why) || job.command.kind == MQTT_TOPIC_OTHER) {
            continue; /* the configuration has changed */
        }
        /* If the clock was set back, the age is not known: the command counts as late. */
        if (job.received > mqtt_clock_now()) {
            job.received = job.expires = 0;
        }
        MqttJob *added = add_job(bridge, job);
        if (job.called_at > 0) {
            finish(bridge, added, MQTT_FAILED,
                   "The bridge restarted before the daemon answered; the clip may have played.");
        } else if (!finish_if_late(bridge, added)) {
            start(bridge, added);
        }
    }
    bridge->must_save = true;
}

int mqtt_jobs_on_retry(sd_event_source *, guint64, void *data)
{
    auto *bridge = static_cast<MqttBridge *>(data);
    std::vector<gint64> numbers;
    for (const MqttJob &job : bridge->store.jobs) {
        if (job.state == MQTT_JOB_RETRYING) {
            numbers.push_back(job.number);
        }
    }
    for (const gint64 number : numbers) {
        MqttJob *job = find_job(bridge, number);
        if (!finish_if_late(bridge, job)) {
            start(bridge, job);
        }
    }
    return 0;
}

int mqtt_jobs_on_alarm(sd_event_source *, guint64, void *data)
{
    auto *bridge = static_cast<MqttBridge *>(data);
    const gint64 now = mqtt_clock_now();
    std::vector<gint64> numbers;
    for (const MqttJob &job : bridge->store.jobs) {
        if (job.state == MQTT_JOB_WAITING && get_call_time(bridge, job) / 1000 <= now) {
            numbers.push_back(job.number);
        }
    }
    for (const gint64 number : numbers) {
        MqttJob *job = find_job(bridge, number);
        if (!finish_if_late(bridge, job)) {
            call_play(bridge, job);
        }
    }
    set_alarm(bridge);
    return 0;
}
