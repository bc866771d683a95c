#include "mqtt_store.h"

#include <cerrno>
#include <cstdio>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "autoptr.h"
#include "mqtt_json.h"

namespace
{

constexpr mode_t MODE = 0600;
constexpr size_t MAX_JOBS = 256;

/* Stands for a time that is damaged in the file. What depends on it is late; 0 would mean that
 * there is no time. */
constexpr gint64 LONG_AGO = 1;

/* Far above what the counter can reach, and far below its overflow. */
constexpr gint64 MAX_SAVES = gint64{1} << 53;

std::string encode(const std::string &bytes)
{
    g_autofree char *text =
        g_base64_encode(reinterpret_cast<const guchar *>(bytes.data()), bytes.size());
    return text;
}

std::string decode(const std::string &text)
{
    gsize size = 0;
    g_autofree guchar *bytes = g_base64_decode(text.c_str(), &size);
    return bytes ? std::string(reinterpret_cast<const char *>(bytes), size) : "";
}

/* Returns the Unix time at `value` in milliseconds, 0 if there is none, or LONG_AGO if it is not
 * one that the bridge writes. */
gint64 read_time(const json_t *value)
{
    gint64 time = 0;
    if (!value) {
        return 0;
    }
    return mqtt_json_read_integer(value, &time) && time >= 0 && time <= MQTT_MAX_AT ? time
                                                                                    : LONG_AGO;
}

json_t *write_job(const MqttJob &job)
{
    json_t *object = json_object();
    json_object_set_new(object, "topic", json_string(job.topic.c_str()));
    json_object_set_new(object, "payload", json_string(job.payload.c_str()));
    json_object_set_new(object, "responseTopic", json_string(job.response_topic.c_str()));
    if (job.has_correlation) {
        json_object_set_new(object, "correlation", json_string(encode(job.correlation).c_str()));
    }
    json_object_set_new(object, "received", json_integer(job.received));
    json_object_set_new(object, "expires", json_integer(job.expires));
    json_object_set_new(object, "calledAt", json_integer(job.called_at));
    return object;
}

void read_job(MqttStore *store, const json_t *object)
{
    MqttJob job;
    job.topic = mqtt_json_get_text(object, "topic");
    job.payload = mqtt_json_get_text(object, "payload");
    job.response_topic = mqtt_json_get_text(object, "responseTopic");
    job.has_correlation = json_object_get(object, "correlation") != nullptr;
    job.correlation = decode(mqtt_json_get_text(object, "correlation"));
    job.received = read_time(json_object_get(object, "received"));
    /* If the age is not known, an expiry must not make the command valid. */
    job.expires = job.received > LONG_AGO ? read_time(json_object_get(object, "expires")) : 0;
    job.called_at = read_time(json_object_get(object, "calledAt"));
    if (!job.topic.empty() && store->jobs.size() < MAX_JOBS) {
        store->jobs.push_back(job);
    }
}

int write_all(int fd, const std::string &text)
{
    size_t written = 0;
    while (written < text.size()) {
        const ssize_t count = write(fd, text.data() + written, text.size() - written);
        if (count < 0 && errno != EINTR) {
            return errno;
        }
        written += count > 0 ? static_cast<size_t>(count) : 0;
    }
    return 0;
}

int sync_folder(const std::string &path)
{
    g_autofree char *folder = g_path_get_dirname(path.c_str());
    const int fd = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (fd < 0) {
        return errno;
    }
    const int error = fsync(fd) < 0 ? errno : 0;
    close(fd);
    return error;
}

} // namespace

std::string mqtt_store_write(const MqttStore &store)
{
    json_t *jobs = json_array();
    for (const MqttJob &job : store.jobs) {
        json_array_append_new(jobs, write_job(job));
    }
    json_t *ids = json_array();
    for (const MqttMemoryEntry &entry : store.memory.entries) {
        json_array_append_new(ids, json_pack("[sI]", entry.id.c_str(), (json_int_t)entry.time));
    }
    json_t *object = json_object();
    json_object_set_new(object, "commands", jobs);
    json_object_set_new(object, "ids", ids);
    json_object_set_new(object, "announced", json_boolean(store.announced));
    json_object_set_new(object, "sirenEnd", json_integer(store.siren_end));
    json_object_set_new(object, "sirenFile", json_string(store.siren_file.c_str()));
    json_object_set_new(object, "saves", json_integer(store.saves));
    return mqtt_json_write(object);
}

bool mqtt_store_read(MqttStore *store, std::string_view text)
{
    g_autoptr(json_t) object = json_loadb(text.data(), text.size(), 0, nullptr);
    if (!json_is_object(object)) {
        return false;
    }
    size_t i = 0;
    const json_t *item = nullptr;
    json_array_foreach(json_object_get(object, "commands"), i, item)
    {
        read_job(store, item);
    }
    json_array_foreach(json_object_get(object, "ids"), i, item)
    {
        const char *id = json_string_value(json_array_get(item, 0));
        if (id) {
            mqtt_memory_add(&store->memory, id, read_time(json_array_get(item, 1)));
        }
    }
    store->announced = json_is_true(json_object_get(object, "announced"));
    store->siren_end = read_time(json_object_get(object, "sirenEnd"));
    store->siren_file = mqtt_json_get_text(object, "sirenFile");
    const gint64 saves = mqtt_json_get_integer(object, "saves", 0);
    store->saves = saves >= 0 && saves <= MAX_SAVES ? saves : 0;
    return true;
}

int mqtt_store_save(const MqttStore &store, const std::string &path, bool is_durable)
{
    const std::string temporary = path + ".new";
    const int fd = open(temporary.c_str(), O_WRONLY | O_CREAT | O_TRUNC | O_CLOEXEC, MODE);
    if (fd < 0) {
        return errno;
    }
    int error = write_all(fd, mqtt_store_write(store));
    if (error == 0 && is_durable && fdatasync(fd) < 0) {
        error = errno;
    }
    if (close(fd) < 0 && error == 0) {
        error = errno;
    }
    if (error == 0 && rename(temporary.c_str(), path.c_str()) < 0) {
        error = errno;
    }
    if (error != 0) {
        unlink(temporary.c_str());
        return error;
    }
    return is_durable ? sync_folder(path) : 0;
}

int mqtt_store_load(MqttStore *store, const std::string &path)
{
    g_autofree char *content = nullptr;
    gsize size = 0;
    g_autoptr(GError) error = nullptr;
    if (!g_file_get_contents(path.c_str(), &content, &size, &error)) {
        return g_error_matches(error, G_FILE_ERROR, G_FILE_ERROR_NOENT) ? ENOENT : EIO;
    }
    return mqtt_store_read(store, {content, size}) ? 0 : EBADMSG;
}
