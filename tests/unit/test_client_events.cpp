#include "client_events.h"

#include "autoptr.h"
#include "client_bus.h"
#include "played_daemon.h"
#include "private_bus.h"

namespace
{

constexpr const char *TOPIC = "topic0"; /* the first key of every event */

class ClientEvents : public BusTest
{
  protected:
    ClientEvents() : client(client_bus_open(nullptr)) {}

    ~ClientEvents() override
    {
        sd_bus_flush_close_unref(client);
    }

    /* Returns one line per output, or the error code, for this reply. */
    std::string list(const PlayedDaemon::Handler &reply)
    {
        const PlayedDaemon daemon({CLIENT_EVENTS_SERVICE}, reply);
        g_autoptr(GError) error = nullptr;
        g_autoptr(GPtrArray) outputs = client_outputs_list(client, &error);
        EXPECT_EQ(outputs == nullptr, error != nullptr);
        if (!outputs) {
            return std::to_string(error->code);
        }
        std::string text;
        for (guint i = 0; i < outputs->len; i++) {
            const auto *output = static_cast<const ClientOutput *>(g_ptr_array_index(outputs, i));
            text += std::to_string(output->output) + "=" + std::to_string(output->device) + "." +
                    std::to_string(output->device_output) +
                    (output->playing ? " plays " : " idle ") + output->file_name +
                    (output->file_since ? " since " + std::to_string(output->file_since) : "") +
                    (output->now ? " at " + std::to_string(output->now) : "") + "\n";
        }
        return text;
    }

    sd_bus *client;
};

TEST_F(ClientEvents, MergesEventsIntoSortedOutputs)
{
    EXPECT_EQ(list([](sd_bus_message *call) {
                  return sd_bus_reply_method_return(
                      call, "a{oa{sa{sv}}}", 3, "/a/1", 1, CLIENT_EVENT_INTERFACE, 1, "Keys",
                      "a{sv}", 6, TOPIC, "s", "SonoBrik", "topic1", "s", "Playing", "AudioOutput",
                      "i", 3, "AudioDeviceId", "i", 2, "AudioOutputId", "i", 0, "Playing", "b", 0,
                      "/a/2", 2, "org.freedesktop.DBus.Peer", 0, CLIENT_EVENT_INTERFACE, 2,
                      "StateKey", "s", "Playing", "Keys", "a{sv}", 6, TOPIC, "s", "SonoBrik",
                      "topic1", "s", "Playing", "AudioOutput", "i", 1, "AudioDeviceId", "i", 0,
                      "AudioOutputId", "i", 0, "Playing", "b", 1, "/a/3", 1, CLIENT_EVENT_INTERFACE,
                      1, "Keys", "a{sv}", 6, TOPIC, "s", "SonoBrik", "topic1", "s",
                      "CurrentlyPlaying", "AudioOutput", "i", 1, "AudioDeviceId", "i", 0,
                      "AudioOutputId", "i", 0, "FileName", "s", "/x.wav");
              }),
              "0=0.0 plays /x.wav\n2=2.0 idle \n");
}

TEST_F(ClientEvents, ReadsSinceWhenAFileHasBeenPlaying)
{
    const auto answer = [](sd_bus_message *call) {
        return sd_bus_reply_method_return(
            call, "a{oa{sa{sv}}}", 2, "/a/1", 2, CLIENT_EVENT_INTERFACE, 1, "Keys", "a{sv}", 2,
            TOPIC, "s", "SonoBrik", "topic1", "s", "Playing", CLIENT_TIME_INTERFACE, 1, "LastSent",
            "t", guint64{3}, "/a/2", 2, CLIENT_TIME_INTERFACE, 3, "LastSent", "t",
            guint64{12345678901}, "Other", "t", guint64{1}, "Now", "t", guint64{12345678999},
            CLIENT_EVENT_INTERFACE, 1, "Keys", "a{sv}", 3, TOPIC, "s", "SonoBrik", "topic1", "s",
            "CurrentlyPlaying", "FileName", "s", "/x.wav");
    };
    EXPECT_EQ(list(answer), "0=0.0 idle /x.wav since 12345678901 at 12345678999\n");
}

TEST_F(ClientEvents, SkipsOtherEventsAndInterfaces)
{
    EXPECT_EQ(list([](sd_bus_message *call) {
                  return sd_bus_reply_method_return(
                      call, "a{oa{sa{sv}}}", 4, "/a/1", 1, CLIENT_EVENT_INTERFACE, 1, "Keys", "i",
                      1, "/a/2", 1, CLIENT_EVENT_INTERFACE, 0, "/a/3", 1, "com.vesk.Else", 1,
                      "Keys", "a{sv}", 0, "/a/4", 0);
              }),
              std::to_string(CLIENT_ERROR_REPLY))
        << "Keys of another type make the reply invalid";
    EXPECT_EQ(list([](sd_bus_message *call) {
                  return sd_bus_reply_method_return(
                      call, "a{oa{sa{sv}}}", 2, "/a/1", 1, CLIENT_EVENT_INTERFACE, 1, "Keys",
                      "a{sv}", 2, TOPIC, "s", "Weather", "topic1", "s", "Playing", "/a/2", 1,
                      CLIENT_EVENT_INTERFACE, 1, "Keys", "a{sv}", 2, TOPIC, "i", 4, "topic1", "s",
                      "Playing");
              }),
              "");
}

TEST_F(ClientEvents, SkipsKeysOfUnexpectedType)
{
    EXPECT_EQ(list([](sd_bus_message *call) {
                  return sd_bus_reply_method_return(
                      call, "a{oa{sa{sv}}}", 1, "/a/1", 1, CLIENT_EVENT_INTERFACE, 1, "Keys",
                      "a{sv}", 6, TOPIC, "s", "SonoBrik", "topic1", "s", "Playing", "AudioOutput",
                      "s", "one", "AudioDeviceId", "i", -5, "Playing", "i", 1, "Colour", "as", 1,
                      "red");
              }),
              "0=-5.0 idle \n");
}

TEST_F(ClientEvents, RejectsReplyOfUnexpectedType)
{
    EXPECT_EQ(list([](sd_bus_message *call) { return sd_bus_reply_method_return(call, nullptr); }),
              std::to_string(CLIENT_ERROR_REPLY));
    EXPECT_EQ(
        list([](sd_bus_message *call) { return sd_bus_reply_method_return(call, "s", "outputs"); }),
        std::to_string(CLIENT_ERROR_REPLY));
}

TEST_F(ClientEvents, FailsIfThePlatformPublishesNoEvents)
{
    g_autoptr(GError) error = nullptr;
    EXPECT_EQ(client_outputs_list(client, &error), nullptr);
    EXPECT_TRUE(g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_NO_DAEMON));
}

} // namespace
