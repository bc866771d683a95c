#include "ctl_wait.h"

#include <cstdint>

#include "client_bus.h"
#include "played_daemon.h"
#include "private_bus.h"

namespace
{

uint64_t play_timeout;

} // namespace

extern "C" {
// NOLINTBEGIN(bugprone-reserved-identifier): the linker's names
int __real_sd_bus_call_async(sd_bus *bus, sd_bus_slot **slot, sd_bus_message *call,
                             sd_bus_message_handler_t callback, void *data, uint64_t usec);

/* Records the time-out with which the code under test calls PlayClip. */
int __wrap_sd_bus_call_async(sd_bus *bus, sd_bus_slot **slot, sd_bus_message *call,
                             sd_bus_message_handler_t callback, void *data, uint64_t usec)
{
    if (sd_bus_message_is_method_call(call, nullptr, "PlayClip")) {
        play_timeout = usec;
    }
    return __real_sd_bus_call_async(bus, slot, call, callback, data, usec);
}
// NOLINTEND(bugprone-reserved-identifier)
}

namespace
{

class CtlWait : public BusTest
{
  protected:
    CtlWait() : client(client_bus_open(nullptr)) {}

    ~CtlWait() override
    {
        sd_bus_flush_close_unref(client);
    }

    /* Waits for a clip. Returns the signal and "code: message" of the error, or "none". */
    std::string wait()
    {
        g_autoptr(GError) error = nullptr;
        sd_bus_message *play =
            client_bus_new_call(client, &CLIENT_SONOBRIK, "PlayClip", nullptr, "s", "location=/a");
        const CtlWaitResult result = ctl_wait(client, play, -1, "a", &error);
        return std::to_string(result.signal) + " " +
               (error ? std::to_string(error->code) + ": " + error->message : "none");
    }

    sd_bus *client;
};

int answer_ok(sd_bus_message *call)
{
    return sd_bus_reply_method_return(call, "s", "OK");
}

TEST_F(CtlWait, WaitsWithoutLimit)
{
    const PlayedDaemon daemon({CLIENT_SONOBRIK.service}, answer_ok);
    play_timeout = 0;
    EXPECT_EQ(wait(), "0 none");
    EXPECT_EQ(play_timeout, UINT64_MAX);
}

TEST_F(CtlWait, PassesTheDaemonsErrorOn)
{
    const PlayedDaemon daemon({CLIENT_SONOBRIK.service}, [](sd_bus_message *call) {
        return sd_bus_reply_method_errorf(call, "com.vesk.Sonobrik.PlayClip", "no");
    });
    EXPECT_EQ(wait(), "0 " + std::to_string(CLIENT_ERROR_METHOD) + ": no");
}

TEST_F(CtlWait, EndsWhenTheBusExits)
{
    const PlayedDaemon daemon({CLIENT_SONOBRIK.service}, [this](sd_bus_message *) {
        bus.stop();
        return 1;
    });
    const std::string end = wait();
    EXPECT_TRUE(end.starts_with("0 " + std::to_string(CLIENT_ERROR_NO_DAEMON)) ||
                end.starts_with("0 " + std::to_string(CLIENT_ERROR_NO_BUS)))
        << end;
}

} // namespace
