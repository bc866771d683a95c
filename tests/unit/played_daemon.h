#pragma once

/* A fake daemon on the bus. It runs on its own thread, because the calls of its clients block. */

#include <atomic>
#include <functional>
#include <initializer_list>
#include <systemd/sd-bus.h>
#include <thread>

class PlayedDaemon
{
  public:
    /* Replies to a call, on the daemon's thread. Returns the value of an sd-bus handler. */
    using Handler = std::function<int(sd_bus_message *call)>;

    /* Acquires `names` before it returns. `handler` gets every call. */
    PlayedDaemon(std::initializer_list<const char *> names, Handler handler);
    ~PlayedDaemon();
    PlayedDaemon(const PlayedDaemon &) = delete;
    PlayedDaemon &operator=(const PlayedDaemon &) = delete;

    /* Closes the connection after the handler has returned. Call it from the handler only. */
    void leave();

  private:
    static int dispatch(sd_bus_message *call, void *data, sd_bus_error *error);
    void run();

    Handler handler;
    sd_bus *bus = nullptr;
    std::atomic<bool> is_over = false;
    std::thread thread;
};
