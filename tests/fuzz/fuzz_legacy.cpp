/* Fuzzes SetConfigurationEntry of the legacy interface: a clip's new name as an array of bytes. */

#include <cstring>
#include <glib.h>
#include <string>

#include "autoptr.h"
#include "fake_platform.h"
#include "fuzz_bus.h"
#include "fuzz_input.h"
#include "group_conf_directory.h"
#include "group_methods.h"
#include "sonobrik_group.h"

static constexpr const char *INTERFACE = "com.vesk.Configuration.Legacy";
static constexpr const char *OBJECT = "/com/vesk/Sonobrik";
static constexpr const char *ERROR_NAME = "com.vesk.Sonobrik.Legacy.SetConfigurationEntry";
static constexpr size_t MAX_VALUE = 255;

static std::string folder;
static std::string record_path;
static FuzzBus bus;

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    folder = fuzz_input_setup("legacy");
    record_path = folder + "/M0.json";
    sonobrik_group_conf_reset(folder.c_str());
    fake_platform.parameter = "2";
    bus = fuzz_bus_connect();
    const int r = sd_bus_add_object_vtable(bus.server, nullptr, OBJECT, INTERFACE,
                                           group_method_table, nullptr);
    g_assert(r >= 0);
    return 0;
}

static sd_bus_message *new_call(int32_t index, const std::string &property)
{
    sd_bus_message *call = nullptr;
    int r = sd_bus_message_new_method_call(bus.client, &call, nullptr, OBJECT, INTERFACE,
                                           "SetConfigurationEntry");
    g_assert(r >= 0);
    r = sd_bus_message_append(call, "is", index, property.c_str());
    g_assert(r >= 0);
    return call;
}

static std::string read_name()
{
    g_autoptr(SonobrikGroup) record = sonobrik_group_from_file(record_path.c_str());
    g_assert(record);
    return record->name;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    static constexpr std::string_view RECORD =
        R"({"location": "", "name": "before", "type": "", "metadata": {}})";
    fuzz_input_write(record_path, reinterpret_cast<const uint8_t *>(RECORD.data()), RECORD.size());
    fake_platform.written.clear();
    fake_platform.written_mode.clear();

    FuzzedDataProvider input(data, size);
    const bool is_bytes = input.ConsumeBool();
    const int32_t index = input.ConsumeBool() ? 0 : input.ConsumeIntegral<int32_t>();
    const std::string property = input.ConsumeBool() ? "Name" : fuzz_bus_text(&input);
    sd_bus_message *call = new_call(index, property);
    std::string bytes;
    if (is_bytes) {
        bytes = input.ConsumeRemainingBytesAsString();
        g_assert(sd_bus_message_open_container(call, SD_BUS_TYPE_VARIANT, "ay") >= 0);
        g_assert(sd_bus_message_append_array(call, 'y', bytes.data(), bytes.size()) >= 0);
        g_assert(sd_bus_message_close_container(call) >= 0);
    } else {
        fuzz_bus_append_variant(call, &input);
    }

    g_autoptr(sd_bus_message) reply = fuzz_bus_call(bus, call);
    if (sd_bus_message_is_method_error(reply, nullptr)) {
        g_assert(sd_bus_message_is_method_error(reply, ERROR_NAME));
        g_assert(read_name() == "before");
        return 0;
    }
    g_assert(index == 0 && property == "Name");
    g_assert(bytes.size() <= MAX_VALUE);
    /* The name ends at a zero byte. */
    const std::string name = read_name();
    g_assert(name.size() <= MAX_VALUE && g_utf8_validate(name.c_str(), -1, nullptr));
    g_assert(!is_bytes || name == bytes.c_str());
    return 0;
}
