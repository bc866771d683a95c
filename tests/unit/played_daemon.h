#pragma once

/* The daemon as its clients meet it, played on a thread of its own: their calls block. */

#include <atomic>
#include <functional>
#include <initializer_list>
#include <systemd/sd-bus.h>
#include <thread>

class PlayedDaemon
{
  public:
    /* Answers a call, on the daemon's thread, and returns as an sd-bus handler does. */
    using Handler = std::function<int(sd_bus_message *call)>;

    /* Owns `names` once constructed; every call to them goes to `handler`. */
    PlayedDaemon(std::initializer_list<const char *> names, Handler handler);
    ~PlayedDaemon();
    PlayedDaemon(const PlayedDaemon &) = delete;
    PlayedDaemon &operator=(const PlayedDaemon &) = delete;

    /* From the handler: leaves the bus once that has returned. */
    void leave();

  private:
    static int dispatch(sd_bus_message *call, void *data, sd_bus_error *error);
    void run();

    Handler handler;
    sd_bus *bus = nullptr;
    std::atomic<bool> is_over = false;
    std::thread thread;
};
