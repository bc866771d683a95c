#include "played_daemon.h"

#include <gtest/gtest.h>
#include <utility>

namespace
{

constexpr uint64_t TICK_US = 20000;

} // namespace

PlayedDaemon::PlayedDaemon(std::initializer_list<const char *> names, Handler handler_)
    : handler(std::move(handler_))
{
    EXPECT_GE(sd_bus_open_system(&bus), 0);
    EXPECT_GE(sd_bus_add_fallback(bus, nullptr, "/", dispatch, this), 0);
    for (const char *name : names) {
        EXPECT_GE(sd_bus_request_name(bus, name, 0), 0) << name;
    }
    thread = std::thread([this] { run(); });
}

PlayedDaemon::~PlayedDaemon()
{
    is_over = true;
    thread.join();
    sd_bus_flush_close_unref(bus);
}

void PlayedDaemon::leave()
{
    is_over = true;
}

int PlayedDaemon::dispatch(sd_bus_message *call, void *data, sd_bus_error *)
{
    return static_cast<PlayedDaemon *>(data)->handler(call);
}

void PlayedDaemon::run()
{
    int r = 0;
    while (!is_over && r >= 0) {
        r = sd_bus_process(bus, nullptr);
        if (r == 0) {
            r = sd_bus_wait(bus, TICK_US);
        }
    }
    sd_bus_flush(bus);
    sd_bus_close(bus);
}
