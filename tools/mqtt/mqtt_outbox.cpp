#include "mqtt_outbox.h"

#include <utility>

#include "mqtt_bridge_data.h"
#include "mqtt_clock.h"
#include "mqtt_topics.h"

namespace
{

/* How many answers are kept for the next connection, or wait for the broker's confirmation. */
constexpr size_t MAX_KEPT = 256;
constexpr unsigned MAX_UNCONFIRMED = 1000;

void send_answer(MqttBridge *bridge, const MqttKept &answer);

void keep(MqttBridge *bridge, const MqttKept &answer)
{
    if (bridge->kept.size() >= MAX_KEPT) {
        bridge->kept.pop_front();
    }
    bridge->kept.push_back(answer);
}

void send_to_own_topic(MqttBridge *bridge, const MqttKept &answer)
{
    MqttKept other = answer;
    other.topic = mqtt_topics_own(*bridge->conf, "result");
    send_answer(bridge, other);
}

void send_answer(MqttBridge *bridge, const MqttKept &answer)
{
    if (!mqtt_client_is_connected(bridge->client) ||
        mqtt_client_count_unconfirmed(bridge->client) >= MAX_UNCONFIRMED) {
        keep(bridge, answer);
        return;
    }
    const bool is_own = answer.topic == mqtt_topics_own(*bridge->conf, "result");
    const int message = mqtt_client_publish(bridge->client, answer.topic, answer.payload, false,
                                            answer.has_correlation ? &answer.correlation : nullptr);
    if (message == 0 && !is_own) {
        send_to_own_topic(bridge, answer);
    } else if (message != 0 && !is_own) {
        bridge->unconfirmed[message] = answer;
    }
}

} // namespace

void mqtt_outbox_answer(MqttBridge *bridge, const MqttJob &job, MqttStatus status,
                        const std::string &text)
{
    const MqttConf &conf = *bridge->conf;
    const bool has_topic = mqtt_topics_may_answer(conf, job.response_topic);
    send_answer(bridge,
                {
                    .topic = has_topic ? job.response_topic : mqtt_topics_own(conf, "result"),
                    .payload = mqtt_answer_write(conf, job, status, text, mqtt_clock_now(),
                                                 mqtt_clock_read()),
                    .correlation = job.correlation,
                    .has_correlation = job.has_correlation,
                });
}

void mqtt_outbox_on_published(MqttBridge *bridge, int message, bool is_refused)
{
    const auto found = bridge->unconfirmed.find(message);
    if (found == bridge->unconfirmed.end()) {
        return;
    }
    const MqttKept answer = std::move(found->second);
    bridge->unconfirmed.erase(found);
    if (is_refused) {
        send_to_own_topic(bridge, answer);
    }
}

void mqtt_outbox_send_kept(MqttBridge *bridge)
{
    while (!bridge->kept.empty() && mqtt_client_is_connected(bridge->client) &&
           mqtt_client_count_unconfirmed(bridge->client) < MAX_UNCONFIRMED) {
        const MqttKept answer = bridge->kept.front();
        bridge->kept.pop_front();
        send_answer(bridge, answer);
    }
}
