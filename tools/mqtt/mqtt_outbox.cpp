#include "mqtt_outbox.h"

#include <algorithm>
#include <utility>

#include "mqtt_bridge_data.h"
#include "mqtt_clock.h"
#include "mqtt_topics.h"

namespace
{

/* How many answers wait for the broker's confirmation, or are kept for the next connection. Those
 * that wait can become kept ones, and leave room for 256 more. */
constexpr unsigned MAX_UNCONFIRMED = 1000;
constexpr size_t MAX_KEPT = MAX_UNCONFIRMED + 256;

constexpr int MAX_SHORT_CONNECTIONS = 3;

void send_answer(MqttBridge *bridge, const MqttKept &answer);

bool is_own(const MqttBridge *bridge, const MqttKept &answer)
{
    return answer.topic == mqtt_topics_own(*bridge->conf, "result");
}

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
    const int message = mqtt_client_publish(bridge->client, answer.topic, answer.payload, false,
                                            answer.has_correlation ? &answer.correlation : nullptr);
    if (message != 0) {
        bridge->unconfirmed[message] = answer;
    } else if (!is_own(bridge, answer)) {
        send_to_own_topic(bridge, answer);
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
    if (is_refused && !is_own(bridge, answer)) {
        send_to_own_topic(bridge, answer);
    }
}

void mqtt_outbox_on_ended(MqttBridge *bridge, bool was_stable)
{
    const bool has_foreign = std::ranges::any_of(
        bridge->unconfirmed, [bridge](const auto &entry) { return !is_own(bridge, entry.second); });
    bridge->short_connections = was_stable || !has_foreign ? 0 : bridge->short_connections + 1;
    if (bridge->short_connections < MAX_SHORT_CONNECTIONS || !mqtt_client_forget(bridge->client)) {
        return;
    }
    const std::string topic = mqtt_topics_own(*bridge->conf, "result");
    mqtt_log(LOG_WARNING,
             "the broker ended %d connections before it confirmed an answer; sending the answer to "
             "%s instead",
             bridge->short_connections, topic.c_str());
    bridge->short_connections = 0;
    std::deque<MqttKept> answers;
    for (const auto &[message, answer] : bridge->unconfirmed) {
        answers.push_back(answer);
        answers.back().topic = topic;
    }
    bridge->unconfirmed.clear();
    bridge->kept.insert(bridge->kept.begin(), answers.begin(), answers.end());
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
