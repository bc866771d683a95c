#include "client_devices.h"

#include "autoptr.h"
#include "client_bus.h"
#include "played_daemon.h"
#include "private_bus.h"

namespace
{

constexpr const char *DEVICE_INTERFACE = "com.vesk.AudioControl.Device";
constexpr const char *OUTPUTS_INTERFACE = "com.vesk.AudioControl.Outputs";

class ClientDevices : public BusTest
{
  protected:
    ClientDevices() : client(client_bus_open(nullptr)) {}

    ~ClientDevices() override
    {
        sd_bus_flush_close_unref(client);
    }

    /* Returns one line per device, or the error code, for this reply. */
    std::string list(const PlayedDaemon::Handler &reply)
    {
        const PlayedDaemon service({CLIENT_DEVICES_SERVICE}, reply);
        g_autoptr(GError) error = nullptr;
        g_autoptr(GPtrArray) devices = client_devices_list(client, &error);
        EXPECT_EQ(devices == nullptr, error != nullptr);
        if (!devices) {
            return std::to_string(error->code);
        }
        std::string text;
        for (guint i = 0; i < devices->len; i++) {
            const auto *device = static_cast<const ClientDevice *>(g_ptr_array_index(devices, i));
            const char *name = client_devices_get_name(devices, device->number);
            text += std::to_string(device->number) + (device->plugged_in ? " in " : " out ") +
                    device->name + (name ? "" : ", not its output") + "\n";
            EXPECT_EQ(client_devices_get(devices, device->number), device);
        }
        EXPECT_EQ(client_devices_get(devices, 99), nullptr);
        return text;
    }

    sd_bus *client;
};

TEST_F(ClientDevices, AreSortedByNumber)
{
    EXPECT_EQ(list([](sd_bus_message *call) {
                  return sd_bus_reply_method_return(
                      call, "a{oa{sa{sv}}}", 2, "/a/2", 1, DEVICE_INTERFACE, 3, "Number", "u", 2,
                      "Name", "s", "Hall", "PluggedIn", "b", 0, "/a/1", 2, OUTPUTS_INTERFACE, 1,
                      "Outputs", "a(usb)", 0, DEVICE_INTERFACE, 4, "Path", "s", "pci", "Number",
                      "u", 1, "Name", "s", "Küche", "PluggedIn", "b", 1);
              }),
              "1 in Küche\n2 out Hall, not its output\n");
}

TEST_F(ClientDevices, DoNotNameAnOutputThatTheAdministratorDefines)
{
    EXPECT_EQ(list([](sd_bus_message *call) {
                  return sd_bus_reply_method_return(
                      call, "a{oa{sa{sv}}}", 2, "/a/1", 2, DEVICE_INTERFACE, 3, "Number", "u", 1,
                      "Name", "s", "Hall", "PluggedIn", "b", 1, OUTPUTS_INTERFACE, 1, "Outputs",
                      "a(usb)", 2, 0, "Analog", 1, 1, "HDMI", 0, "/a/2", 2, OUTPUTS_INTERFACE, 2,
                      "Other", "s", "x", "Outputs", "a(usb)", 2, 0, "Analog", 0, 1, "HDMI", 1,
                      DEVICE_INTERFACE, 3, "Number", "u", 2, "Name", "s", "Garden", "PluggedIn",
                      "b", 1);
              }),
              "1 in Hall, not its output\n2 in Garden\n");
}

TEST_F(ClientDevices, NeedANumberAndAName)
{
    EXPECT_EQ(list([](sd_bus_message *call) {
                  return sd_bus_reply_method_return(
                      call, "a{oa{sa{sv}}}", 4, "/a/1", 1, DEVICE_INTERFACE, 1, "Number", "u", 1,
                      "/a/2", 1, DEVICE_INTERFACE, 2, "Number", "u", 2, "Name", "s", "", "/a/3", 1,
                      DEVICE_INTERFACE, 2, "Number", "s", "3", "Name", "s", "Hall", "/a/4", 1,
                      DEVICE_INTERFACE, 2, "Number", "u", 0x80000000U, "Name", "s", "Hall");
              }),
              "");
}

TEST_F(ClientDevices, RejectReplyOfUnexpectedType)
{
    EXPECT_EQ(list([](sd_bus_message *call) { return sd_bus_reply_method_return(call, "s", "x"); }),
              std::to_string(CLIENT_ERROR_REPLY));
}

TEST_F(ClientDevices, AreUnknownWithoutTheService)
{
    g_autoptr(GError) error = nullptr;
    EXPECT_EQ(client_devices_list(client, &error), nullptr);
    EXPECT_TRUE(g_error_matches(error, CLIENT_ERROR, CLIENT_ERROR_NO_DAEMON));
    EXPECT_EQ(client_devices_get(nullptr, 0), nullptr);
    EXPECT_EQ(client_devices_get_name(nullptr, 0), nullptr);
}

} // namespace
