#include "mqtt_client.h"

#include <algorithm>
#include <cerrno>
#include <cstring>
#include <map>
#include <mosquitto.h>
#include <mqtt_protocol.h>
#include <poll.h>
#include <sys/epoll.h>
#include <sys/eventfd.h>
#include <unistd.h>
#include <utility>

#include "autoptr.h"
#include "mqtt_log.h"
#include "mqtt_pause.h"
#include "mqtt_topics.h"

namespace
{

/* The largest packet that the broker may send to this client. It is larger than the limit for
 * payloads, so that the node receives such a command and can refuse it. */
constexpr guint32 MAX_PACKET = 1'048'576;

/* How many packets are read before other events get their turn. */
constexpr int MAX_READS = 64;

/* How often libmosquitto checks the keepalive, in microseconds. */
constexpr guint64 MISC_INTERVAL = 1'000'000;

/* After a connection that lasted this long, in microseconds, the next pause is a short one. Two
 * clients with the same identifier disconnect each other sooner, so their pauses grow. */
constexpr guint64 STABLE_TIME = 10'000'000;

constexpr gint64 LEAVE_TIME = 1000; /* milliseconds */

constexpr int QOS = 1;

enum State {
    IDLE,       /* the timer is running */
    CONNECTING, /* the thread is running; nothing else may touch `mosq` */
    OPENED,     /* the broker has not answered yet */
    CONNECTED,
};

} // namespace

struct MqttClient {
    sd_event *event;
    const MqttConf *conf;
    std::string password;
    MqttHandlers handlers;
    mosquitto *mosq;
    State state;
    sd_event_source *io;
    sd_event_source *timer;  /* the next attempt, or the next check of the keepalive */
    sd_event_source *stable; /* runs from a connection to STABLE_TIME after it */
    sd_event_source *joined; /* the end of the thread */
    int joined_fd;
    GThread *thread;
    int result;         /* of the thread */
    std::string reason; /* why the connection was lost or not made */
    std::string logged; /* the last reason that was logged */
    unsigned packets;   /* that were received */
    bool is_new;        /* the handler of the connection has not run yet */
    bool was_connected; /* since the last attempt */
    bool was_stable;
    bool has_session;
    unsigned unconfirmed;
    MqttPause pause;
    std::map<int, std::string> subscriptions; /* that the broker has not confirmed, by message */
};

namespace
{

void attempt_later(MqttClient *client);

sd_event_source *drop(sd_event_source **source)
{
    return *source = sd_event_source_disable_unref(*source);
}

/* Reconnects later. Does nothing if the loss is already known. Called from libmosquitto's handlers
 * and after calls of it. */
void note_loss(MqttClient *client)
{
    /* The descriptor is closed already; its source must go before another file gets its number. */
    drop(&client->io);
    if (client->state != OPENED && client->state != CONNECTED) {
        return;
    }
    drop(&client->stable);
    client->state = IDLE;
    attempt_later(client);
}

void note_if_lost(MqttClient *client)
{
    if (mosquitto_socket(client->mosq) < 0) {
        note_loss(client);
    }
}

/* libmosquitto */

/* Returns the meaning of an error of libmosquitto, which has no text for some of its errors. */
std::string describe_error(int error)
{
    if (error == MOSQ_ERR_KEEPALIVE) {
        return "it does not answer";
    }
    const char *text = mosquitto_strerror(error);
    return g_str_has_prefix(text, "Unknown error")
               ? "error " + std::to_string(error) + " of libmosquitto"
               : text;
}

/* Returns the meaning of a reason code of MQTT. */
std::string describe_reason(int reason)
{
    const char *text = mosquitto_reason_string(reason);
    return g_str_has_prefix(text, "Unknown reason") ? "reason code " + std::to_string(reason)
                                                    : text;
}

void on_log(mosquitto *, void *data, int level, const char *text)
{
    auto *client = static_cast<MqttClient *>(data);
    /* libmosquitto logs each received packet. For some packets, that is the only sign. */
    if (level == MOSQ_LOG_DEBUG && strstr(text, " received ")) {
        client->packets++;
    }
    if (level == MOSQ_LOG_ERR) {
        client->reason = text;
    }
}

void on_connect(mosquitto *, void *data, int reason, int flags, const mosquitto_property *)
{
    constexpr int SESSION_PRESENT = 1;
    auto *client = static_cast<MqttClient *>(data);
    if (reason != 0) {
        client->reason = describe_reason(reason);
        return; /* libmosquitto closes the connection */
    }
    client->state = CONNECTED;
    client->reason.clear();
    client->logged.clear();
    client->subscriptions.clear();
    client->is_new = client->was_connected = true;
    client->has_session = (flags & SESSION_PRESENT) != 0;
    mqtt_log(LOG_INFO, "connected to the broker %s", client->conf->host.c_str());
}

/* Tells that the connection is new. Not in on_connect(): after that, libmosquitto repeats the
 * messages of the previous connection, and an old state must not follow the present one. */
void tell_connected(MqttClient *client)
{
    if (client->state == CONNECTED && client->is_new) {
        client->is_new = false;
        client->handlers.connected(client->has_session);
    }
}

void on_disconnect(mosquitto *, void *data, int reason, const mosquitto_property *)
{
    auto *client = static_cast<MqttClient *>(data);
    if (client->reason.empty() && reason != MOSQ_ERR_SUCCESS) {
        client->reason =
            reason >= MQTT_RC_UNSPECIFIED ? describe_reason(reason) : describe_error(reason);
    }
    note_loss(client);
}

void on_message(mosquitto *, void *data, const mosquitto_message *message,
                const mosquitto_property *properties)
{
    auto *client = static_cast<MqttClient *>(data);
    tell_connected(client);
    MqttMessage copy;
    copy.topic = message->topic;
    copy.payload.assign(static_cast<const char *>(message->payload ? message->payload : ""),
                        static_cast<size_t>(message->payloadlen));
    copy.retained = message->retain;
    char *topic = nullptr;
    if (mosquitto_property_read_string(properties, MQTT_PROP_RESPONSE_TOPIC, &topic, false)) {
        copy.response_topic = topic;
        free(topic);
    }
    void *correlation = nullptr;
    guint16 size = 0;
    if (mosquitto_property_read_binary(properties, MQTT_PROP_CORRELATION_DATA, &correlation, &size,
                                       false)) {
        copy.correlation.assign(static_cast<const char *>(correlation), size);
        copy.has_correlation = true;
        free(correlation);
    }
    guint32 expiry = 0;
    if (mosquitto_property_read_int32(properties, MQTT_PROP_MESSAGE_EXPIRY_INTERVAL, &expiry,
                                      false)) {
        copy.expiry = expiry;
    }
    client->handlers.received(copy);
}

void on_publish(mosquitto *, void *data, int message, int reason, const mosquitto_property *)
{
    auto *client = static_cast<MqttClient *>(data);
    client->unconfirmed -= client->unconfirmed > 0;
    if (reason >= MQTT_RC_UNSPECIFIED) {
        static MqttLogLimit limit;
        unsigned dropped = 0;
        if (mqtt_log_limit_pass(&limit, g_get_monotonic_time(), &dropped)) {
            mqtt_log(LOG_WARNING, "the broker refused a message: %s; %u more were refused before",
                     describe_reason(reason).c_str(), dropped);
        }
    }
    client->handlers.published(message, reason >= MQTT_RC_UNSPECIFIED);
}

void on_subscribe(mosquitto *, void *data, int message, int count, const int *qos,
                  const mosquitto_property *)
{
    auto *client = static_cast<MqttClient *>(data);
    const auto found = client->subscriptions.find(message);
    if (found == client->subscriptions.end()) {
        return;
    }
    if (count > 0 && qos[0] >= MQTT_RC_UNSPECIFIED) {
        mqtt_log(LOG_ERR, "the broker refused the subscription to %s: %s", found->second.c_str(),
                 describe_reason(qos[0]).c_str());
    }
    client->subscriptions.erase(found);
}

/* Connecting */

mosquitto_property *make_properties(const MqttConf &conf)
{
    mosquitto_property *properties = nullptr;
    mosquitto_property_add_int32(&properties, MQTT_PROP_SESSION_EXPIRY_INTERVAL,
                                 static_cast<guint32>(conf.session_expiry));
    mosquitto_property_add_int32(&properties, MQTT_PROP_MAXIMUM_PACKET_SIZE, MAX_PACKET);
    return properties;
}

/* Connects on another thread: resolving a name and connecting can block for minutes, and a
 * scheduled clip must not wait for that. The TLS handshake happens in the loop. */
void *connect_thread(void *data)
{
    auto *client = static_cast<MqttClient *>(data);
    mosquitto_property *properties = make_properties(*client->conf);
    errno = 0;
    client->result = mosquitto_connect_bind_v5(
        client->mosq, client->conf->host.c_str(), static_cast<int>(client->conf->port),
        static_cast<int>(client->conf->keepalive), nullptr, properties);
    if (client->result != MOSQ_ERR_SUCCESS && client->reason.empty()) {
        client->reason =
            client->result == MOSQ_ERR_ERRNO ? g_strerror(errno) : describe_error(client->result);
    }
    mosquitto_property_free_all(&properties);
    const guint64 one = 1;
    if (write(client->joined_fd, &one, sizeof(one)) < 0) {
        g_abort(); /* an eventfd with room for one cannot fail */
    }
    return nullptr;
}

/* Reads all packets that have arrived, up to MAX_READS. Does not wait for the socket to become
 * readable: with TLS, the library may already have read some. Returns true if there may be more. */
bool read_packets(MqttClient *client)
{
    for (int i = 0; i < MAX_READS; i++) {
        const unsigned before = client->packets;
        mosquitto_loop_read(client->mosq, 1);
        note_if_lost(client);
        tell_connected(client);
        if (client->state == CONNECTED) {
            client->handlers.heard();
        }
        if (client->state == IDLE || client->packets == before) {
            return false;
        }
    }
    return true;
}

int on_io(sd_event_source *, int, uint32_t, void *data)
{
    auto *client = static_cast<MqttClient *>(data);
    const bool has_more = read_packets(client);
    if (client->io) {
        /* The socket is writable, so waiting for that too makes the next iteration go on reading.
         */
        const uint32_t more = has_more ? uint32_t{EPOLLOUT} : 0;
        sd_event_source_set_io_events(client->io, EPOLLIN | more);
    }
    return 0;
}

int on_misc(sd_event_source *source, guint64, void *data)
{
    auto *client = static_cast<MqttClient *>(data);
    if (client->state != OPENED && client->state != CONNECTED) {
        return 0;
    }
    sd_event_source_set_time_relative(source, MISC_INTERVAL);
    sd_event_source_set_enabled(source, SD_EVENT_ONESHOT);
    mosquitto_loop_misc(client->mosq);
    note_if_lost(client);
    return 0;
}

int on_stable(sd_event_source *, guint64, void *data)
{
    auto *client = static_cast<MqttClient *>(data);
    mqtt_pause_reset(&client->pause);
    client->was_stable = true;
    return 0;
}

int on_joined(sd_event_source *, int, uint32_t, void *data)
{
    auto *client = static_cast<MqttClient *>(data);
    guint64 count = 0;
    if (read(client->joined_fd, &count, sizeof(count)) < 0) {
        return 0;
    }
    g_thread_join(client->thread);
    client->thread = nullptr;
    client->state = IDLE;
    const int fd = mosquitto_socket(client->mosq);
    if (client->result != MOSQ_ERR_SUCCESS || fd < 0) {
        attempt_later(client);
        return 0;
    }
    client->state = OPENED;
    drop(&client->timer);
    int r = sd_event_add_io(client->event, &client->io, fd, EPOLLIN, on_io, client);
    if (r >= 0) {
        r = sd_event_add_time_relative(client->event, &client->timer, CLOCK_MONOTONIC,
                                       MISC_INTERVAL, 0, on_misc, client);
    }
    if (r >= 0) {
        r = sd_event_add_time_relative(client->event, &client->stable, CLOCK_MONOTONIC, STABLE_TIME,
                                       0, on_stable, client);
    }
    return r;
}

int on_attempt(sd_event_source *, guint64, void *data)
{
    auto *client = static_cast<MqttClient *>(data);
    if (std::exchange(client->was_connected, false)) {
        client->handlers.ended(client->was_stable);
    }
    client->was_stable = false;
    client->reason.clear();
    client->state = CONNECTING;
    client->thread = g_thread_try_new("connect", connect_thread, client, nullptr);
    if (!client->thread) {
        client->state = IDLE;
        client->reason = "no thread can be started";
        attempt_later(client);
    }
    return 0;
}

int set_attempt(MqttClient *client, guint64 delay)
{
    drop(&client->timer);
    return sd_event_add_time_relative(client->event, &client->timer, CLOCK_MONOTONIC, delay, 0,
                                      on_attempt, client);
}

void attempt_later(MqttClient *client)
{
    const gint64 pause = mqtt_pause_next(&client->pause, g_random_double());
    /* Logs each reason once, not at each attempt. */
    if (client->reason != client->logged) {
        mqtt_log(LOG_WARNING, "no connection to the broker %s, port %d: %s; trying again",
                 client->conf->host.c_str(), static_cast<int>(client->conf->port),
                 client->reason.empty() ? "it was closed" : client->reason.c_str());
        client->logged = client->reason;
    }
    const int r = set_attempt(client, static_cast<guint64>(pause) * 1000);
    if (r < 0) {
        sd_event_exit(client->event, r);
    }
}

bool fail(std::string *why, int result)
{
    *why = describe_error(result);
    return false;
}

bool set_security(mosquitto *mosq, const MqttConf &conf, const std::string &password,
                  std::string *why)
{
    const auto text = [](const std::string &value) {
        return value.empty() ? nullptr : value.c_str();
    };
    int result = mosquitto_username_pw_set(mosq, text(conf.username), text(password));
    if (result == MOSQ_ERR_SUCCESS && conf.tls) {
        if (conf.ca_file.empty()) {
            mosquitto_int_option(mosq, MOSQ_OPT_TLS_USE_OS_CERTS, 1);
        }
        result = mosquitto_tls_set(mosq, text(conf.ca_file),
                                   conf.ca_file.empty() ? "/etc/ssl/certs" : nullptr,
                                   text(conf.cert_file), text(conf.key_file), nullptr);
        if (result == MOSQ_ERR_INVAL) {
            *why = "a file of a certificate or a key cannot be read";
            return false;
        }
    }
    return result == MOSQ_ERR_SUCCESS || fail(why, result);
}

bool set_options(mosquitto *mosq, const MqttConf &conf, const std::string &password,
                 std::string *why)
{
    mosquitto_int_option(mosq, MOSQ_OPT_PROTOCOL_VERSION, MQTT_PROTOCOL_V5);
    /* With Nagle's algorithm, a clip would start up to 40 ms later. */
    mosquitto_int_option(mosq, MOSQ_OPT_TCP_NODELAY, 1);
    /* In the mode for threads, libmosquitto queues packets until mosquitto_loop_write(). Otherwise
     * it would acknowledge a message before the store is saved. */
    mosquitto_threaded_set(mosq, true);
    mosquitto_log_callback_set(mosq, on_log);
    mosquitto_connect_v5_callback_set(mosq, on_connect);
    mosquitto_disconnect_v5_callback_set(mosq, on_disconnect);
    mosquitto_message_v5_callback_set(mosq, on_message);
    mosquitto_publish_v5_callback_set(mosq, on_publish);
    mosquitto_subscribe_v5_callback_set(mosq, on_subscribe);
    const std::string topic = mqtt_topics_own(conf, "availability");
    const int result = mosquitto_will_set_v5(
        mosq, topic.c_str(), static_cast<int>(strlen("offline")), "offline", QOS, true, nullptr);
    if (result != MOSQ_ERR_SUCCESS) {
        return fail(why, result);
    }
    return set_security(mosq, conf, password, why);
}

/* Returns an object of libmosquitto with all its settings, or null with the reason in `why`. */
mosquitto *make_mosquitto(MqttClient *client, std::string *why)
{
    mosquitto *mosq = mosquitto_new(client->conf->client_id.c_str(), false, client);
    if (!mosq) {
        *why = g_strerror(errno);
        return nullptr;
    }
    if (!set_options(mosq, *client->conf, client->password, why)) {
        mosquitto_destroy(mosq);
        return nullptr;
    }
    return mosq;
}

bool set_up(MqttClient *client, std::string *why)
{
    client->mosq = make_mosquitto(client, why);
    if (!client->mosq) {
        return false;
    }
    client->joined_fd = eventfd(0, EFD_CLOEXEC | EFD_NONBLOCK);
    if (client->joined_fd < 0) {
        *why = g_strerror(errno);
        return false;
    }
    int r = sd_event_add_io(client->event, &client->joined, client->joined_fd, EPOLLIN, on_joined,
                            client);
    r = r < 0 ? r : set_attempt(client, 0);
    if (r < 0) {
        *why = g_strerror(-r);
    }
    return r >= 0;
}

} // namespace

MqttClient *mqtt_client_new(sd_event *event, const MqttConf *conf, const std::string &password,
                            const MqttHandlers &handlers, std::string *why)
{
    mosquitto_lib_init();
    auto *client = new MqttClient{};
    client->event = sd_event_ref(event);
    client->conf = conf;
    client->password = password;
    client->handlers = handlers;
    client->joined_fd = -1;
    if (!set_up(client, why)) {
        mqtt_client_free(client);
        return nullptr;
    }
    return client;
}

bool mqtt_client_free(MqttClient *client)
{
    if (!client) {
        return true;
    }
    if (client->thread) {
        return false;
    }
    drop(&client->io);
    drop(&client->timer);
    drop(&client->stable);
    drop(&client->joined);
    if (client->mosq) {
        mosquitto_destroy(client->mosq);
    }
    if (client->joined_fd >= 0) {
        close(client->joined_fd);
    }
    sd_event_unref(client->event);
    delete client;
    mosquitto_lib_cleanup();
    return true;
}

bool mqtt_client_is_connected(const MqttClient *client)
{
    return client->state == CONNECTED;
}

void mqtt_client_subscribe(MqttClient *client, const std::string &topic)
{
    int message = 0;
    const int result = mosquitto_subscribe_v5(client->mosq, &message, topic.c_str(), QOS,
                                              MQTT_SUB_OPT_SEND_RETAIN_NEVER, nullptr);
    if (result == MOSQ_ERR_SUCCESS) {
        client->subscriptions[message] = topic;
    }
}

void mqtt_client_unsubscribe(MqttClient *client, const std::string &topic)
{
    mosquitto_unsubscribe_v5(client->mosq, nullptr, topic.c_str(), nullptr);
}

int mqtt_client_publish(MqttClient *client, const std::string &topic, const std::string &payload,
                        bool retain, const std::string *correlation)
{
    if (client->state != CONNECTED) {
        return 0;
    }
    mosquitto_property *properties = nullptr;
    if (correlation) {
        mosquitto_property_add_binary(&properties, MQTT_PROP_CORRELATION_DATA, correlation->data(),
                                      static_cast<guint16>(correlation->size()));
    }
    int message = 0;
    const int result = mosquitto_publish_v5(client->mosq, &message, topic.c_str(),
                                            static_cast<int>(payload.size()), payload.data(), QOS,
                                            retain, properties);
    mosquitto_property_free_all(&properties);
    if (result == MOSQ_ERR_SUCCESS) {
        client->unconfirmed++;
        return message;
    }
    static MqttLogLimit limit;
    unsigned dropped = 0;
    if (mqtt_log_limit_pass(&limit, g_get_monotonic_time(), &dropped)) {
        mqtt_log(LOG_WARNING, "a message to %s cannot be sent: %s", topic.c_str(),
                 describe_error(result).c_str());
    }
    return 0;
}

bool mqtt_client_forget(MqttClient *client)
{
    /* libmosquitto has no function that removes a message, so it starts from the beginning. */
    std::string why;
    mosquitto *mosq = make_mosquitto(client, &why);
    if (!mosq) {
        mqtt_log(LOG_WARNING, "cannot set up libmosquitto again: %s", why.c_str());
        return false;
    }
    mosquitto_destroy(client->mosq);
    client->mosq = mosq;
    client->unconfirmed = 0;
    client->subscriptions.clear();
    return true;
}

unsigned mqtt_client_count_unconfirmed(const MqttClient *client)
{
    return client->unconfirmed;
}

void mqtt_client_flush(MqttClient *client)
{
    if (client->state != OPENED && client->state != CONNECTED) {
        return;
    }
    if (mosquitto_want_write(client->mosq)) {
        mosquitto_loop_write(client->mosq, 1);
        note_if_lost(client);
    }
    if (!client->io) {
        return;
    }
    /* During the handshake, libmosquitto may want to write all the time, so this does not wait for
     * the socket to become writable: reading the broker's packets continues the handshake. */
    const bool waits = client->state == CONNECTED && mosquitto_want_write(client->mosq);
    uint32_t events = 0;
    sd_event_source_get_io_events(client->io, &events);
    if (waits && (events & EPOLLOUT) == 0) {
        sd_event_source_set_io_events(client->io, EPOLLIN | EPOLLOUT);
    }
}

void mqtt_client_leave(MqttClient *client)
{
    if (client->state != CONNECTED) {
        return;
    }
    client->state = IDLE; /* makes note_loss() ignore the end of the connection */
    mosquitto_disconnect_v5(client->mosq, MQTT_RC_DISCONNECT_WITH_WILL_MSG, nullptr);
    pollfd fd = {.fd = mosquitto_socket(client->mosq), .events = POLLOUT, .revents = 0};
    const gint64 end = g_get_monotonic_time() + LEAVE_TIME * 1000;
    while (mosquitto_socket(client->mosq) >= 0 && mosquitto_want_write(client->mosq) &&
           g_get_monotonic_time() < end && poll(&fd, 1, static_cast<int>(LEAVE_TIME)) > 0) {
        mosquitto_loop_write(client->mosq, 1);
    }
}

std::string mqtt_client_library(void)
{
    int major = 0;
    int minor = 0;
    int revision = 0;
    mosquitto_lib_version(&major, &minor, &revision);
    return std::to_string(major) + "." + std::to_string(minor) + "." + std::to_string(revision);
}
