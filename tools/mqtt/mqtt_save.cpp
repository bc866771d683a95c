#include "mqtt_save.h"

#include <cerrno>
#include <unistd.h>
#include <utility>

#include "autoptr.h"
#include "mqtt_bridge_data.h"

namespace
{

constexpr gint64 RETRY_TIME = G_USEC_PER_SEC;

int save(MqttBridge *bridge, const std::string &path, bool is_durable)
{
    bridge->store.saves++;
    return mqtt_store_save(bridge->store, path, is_durable);
}

int save_spare(MqttBridge *bridge)
{
    const int error = save(bridge, bridge->spare_path, false);
    bridge->has_spare = bridge->has_spare || error == 0;
    return error;
}

void remove_spare(MqttBridge *bridge)
{
    if (bridge->has_spare) {
        bridge->has_spare = unlink(bridge->spare_path.c_str()) < 0 && errno != ENOENT;
    }
}

} // namespace

void mqtt_save_load(MqttBridge *bridge)
{
    const int error = mqtt_store_load(&bridge->store, bridge->store_path);
    if (error != 0 && error != ENOENT) {
        mqtt_log(LOG_WARNING, "cannot load %s: %s", bridge->store_path.c_str(), g_strerror(error));
        bridge->store = {};
    }
    MqttStore spare;
    const int spare_error = mqtt_store_load(&spare, bridge->spare_path);
    bridge->has_spare = spare_error != ENOENT;
    if (spare_error == 0 && spare.saves > bridge->store.saves) {
        bridge->store = spare;
    }
}

void mqtt_save_changes(MqttBridge *bridge)
{
    const gint64 now = g_get_monotonic_time();
    const bool is_retry = bridge->save_failed_at > 0 && now - bridge->save_failed_at >= RETRY_TIME;
    if (!bridge->must_save && !is_retry) {
        return;
    }
    const bool is_durable =
        std::exchange(bridge->must_be_durable, false) || bridge->save_failed_at > 0;
    bridge->must_save = false;
    const int error = save(bridge, bridge->store_path, is_durable);
    bridge->save_failed_at = error != 0 ? now : 0;
    if (error == 0) {
        remove_spare(bridge);
        return;
    }
    const int spare_error = save_spare(bridge);
    unsigned dropped = 0;
    if (mqtt_log_limit_pass(&bridge->save_failures, now, &dropped)) {
        mqtt_log(LOG_ERR, "cannot save %s: %s; %s: %s", bridge->store_path.c_str(),
                 g_strerror(error), bridge->spare_path.c_str(),
                 spare_error == 0 ? "saved until the machine restarts" : g_strerror(spare_error));
    }
}

void mqtt_save_quickly(MqttBridge *bridge)
{
    /* If this fails, the clip still plays. It could only play again if the bridge were killed
     * before mqtt_save_changes(), which reports the failure. */
    save_spare(bridge);
    bridge->must_save = true;
}
