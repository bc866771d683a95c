#include "device_utils.h"

#include <optional>
#include <string>
#include <tuple>
#include <vector>

#include "log_test.h"
#include "platform/audio_devices.h"

namespace
{

struct FakeDevice {
    const char *id;
    std::optional<std::vector<const char *>> outputs; /* none: no outputs array at all */
};

struct FakeDevices {
    bool answers = false; /* if false, the service returns null */
    std::vector<FakeDevice> list;
    int gets = 0;
    int frees = 0;
    const void *filter = nullptr;
};

FakeDevices fake;

struct Call {
    gint32 audio_output;
    gint32 audio_device_id;
    gint32 audio_output_id;

    bool operator==(const Call &) const = default;
};

void PrintTo(const Call &call, std::ostream *out)
{
    *out << call.audio_output << ", " << call.audio_device_id << ", " << call.audio_output_id;
}

std::vector<Call> calls;

void record_call(gint32 audio_output, gint32 audio_device_id, gint32 audio_output_id)
{
    calls.push_back({audio_output, audio_device_id, audio_output_id});
}

} // namespace

AudioDevice **audio_devices_get(const void *filter)
{
    fake.gets++;
    fake.filter = filter;
    if (!fake.answers) {
        return nullptr;
    }
    AudioDevice **devices = g_new0(AudioDevice *, fake.list.size() + 1);
    AudioDevice **device = devices;
    for (const FakeDevice &given : fake.list) {
        *device = g_new0(AudioDevice, 1);
        (*device)->id = g_strdup(given.id);
        if (given.outputs) {
            (*device)->outputs = g_new0(AudioOutput *, given.outputs->size() + 1);
            AudioOutput **output = (*device)->outputs;
            for (const char *id : *given.outputs) {
                *output = g_new0(AudioOutput, 1);
                (*output)->id = g_strdup(id);
                output++;
            }
        }
        device++;
    }
    return devices;
}

void audio_devices_free(AudioDevice **devices)
{
    fake.frees++;
    for (AudioDevice **device = devices; device && *device; device++) {
        for (AudioOutput **output = (*device)->outputs; output && *output; output++) {
            g_free((*output)->id);
            g_free(*output);
        }
        g_free((*device)->outputs);
        g_free((*device)->id);
        g_free(*device);
    }
    g_free(devices);
}

namespace
{

class DeviceUtils : public LogTest
{
  protected:
    DeviceUtils()
    {
        fake = FakeDevices();
        calls.clear();
    }

    void TearDown() override
    {
        EXPECT_EQ(fake.frees, fake.answers ? fake.gets : 0) << "a device list was not freed once";
        EXPECT_EQ(fake.filter, nullptr);
        LogTest::TearDown();
    }

    static void devices(std::vector<FakeDevice> list)
    {
        fake.answers = true;
        fake.list = std::move(list);
    }

    /* Returns true if a device with this id and this first output is usable. */
    static bool usable(const char *device_id, const char *output_id)
    {
        devices({{device_id, {{output_id}}}});
        calls.clear();
        device_utils_for_each_id(record_call);
        return !calls.empty();
    }
};

TEST_F(DeviceUtils, CallsBackWithTheIdTwiceAndTheFirstOutputInTheServicesOrder)
{
    devices({{"4", {{"7", "8"}}}, {"1", {{"0"}}}, {"12", {{"3"}}}});
    EXPECT_FALSE(device_utils_for_each_id(record_call));
    EXPECT_EQ(calls, (std::vector<Call>{{4, 4, 7}, {1, 1, 0}, {12, 12, 3}}));
    expect_no_log();
}

TEST_F(DeviceUtils, AsksTheServiceOnceForAllIds)
{
    devices({{"0", {{"0"}}}, {"1", {{"0"}}}});
    device_utils_for_each_id(record_call);
    EXPECT_EQ(fake.gets, 1);
}

TEST_F(DeviceUtils, NullCallbackIsAccepted)
{
    devices({{"0", {{"0"}}}});
    EXPECT_FALSE(device_utils_for_each_id(nullptr));
}

TEST_F(DeviceUtils, MissingListCallsNothingAndIsLogged)
{
    EXPECT_FALSE(device_utils_for_each_id(record_call));
    EXPECT_TRUE(calls.empty());
    expect_log(G_LOG_LEVEL_INFO, "No audio devices found");
    expect_no_log();
}

TEST_F(DeviceUtils, EmptyListCallsNothingSilently)
{
    devices({});
    EXPECT_FALSE(device_utils_for_each_id(record_call));
    EXPECT_TRUE(calls.empty());
    expect_no_log();
}

TEST_F(DeviceUtils, UnusableDevicesAreSkippedSilently)
{
    devices({{"1a", {{"0"}}},
             {"2", {{"x", "1"}}},
             {"3", std::vector<const char *>{}},
             {"4", std::nullopt},
             {"5", {{"0"}}}});
    device_utils_for_each_id(record_call);
    EXPECT_EQ(calls, (std::vector<Call>{{5, 5, 0}}));
    expect_no_log();
}

TEST_F(DeviceUtils, DeviceIdMustBeAWholeNumber)
{
    EXPECT_TRUE(usable("10", "0"));
    EXPECT_FALSE(usable("1a", "0"));
    EXPECT_FALSE(usable("a1", "0"));
    EXPECT_FALSE(usable("1 ", "0"));
    EXPECT_FALSE(usable("1.0", "0"));
    EXPECT_FALSE(usable("", "0"));
    EXPECT_FALSE(usable(nullptr, "0"));
}

TEST_F(DeviceUtils, IdIsDecimal)
{
    EXPECT_FALSE(usable("0x1", "0"));
    ASSERT_TRUE(usable("010", "0"));
    EXPECT_EQ(calls.front().audio_device_id, 10);
}

TEST_F(DeviceUtils, FirstOutputIdMustBeAWholeNumber)
{
    EXPECT_TRUE(usable("0", "10"));
    EXPECT_FALSE(usable("0", "x"));
    EXPECT_FALSE(usable("0", "1x"));
    EXPECT_FALSE(usable("0", ""));
}

TEST_F(DeviceUtils, IdThatDoesNotFitIsNoOtherDevicesId)
{
    EXPECT_FALSE(usable("4294967296", "0"));
    EXPECT_FALSE(usable("99999999999999999999", "0"));
    EXPECT_TRUE(usable("2147483647", "0"));
}

TEST_F(DeviceUtils, IdOfAUsableDeviceIsValid)
{
    devices({{"0", {{"0"}}}, {"3", {{"1"}}}});
    EXPECT_TRUE(device_utils_valid_id(3));
    EXPECT_TRUE(device_utils_valid_id(0));
    EXPECT_FALSE(device_utils_valid_id(1));
    EXPECT_FALSE(device_utils_valid_id(-1));
    expect_no_log();
}

TEST_F(DeviceUtils, IdOfAnOutputIsNotAValidId)
{
    devices({{"0", {{"2"}}}});
    EXPECT_FALSE(device_utils_valid_id(2));
}

TEST_F(DeviceUtils, DeviceWhoseFirstOutputHasNoNumberIsNeverValid)
{
    devices({{"1", {{"x", "2"}}}});
    EXPECT_FALSE(device_utils_valid_id(1));
}

TEST_F(DeviceUtils, DeviceWithoutOutputsIsNeverValid)
{
    devices({{"1", std::vector<const char *>{}}, {"2", std::nullopt}});
    EXPECT_FALSE(device_utils_valid_id(1));
    EXPECT_FALSE(device_utils_valid_id(2));
}

TEST_F(DeviceUtils, NoIdIsValidWithoutAList)
{
    EXPECT_FALSE(device_utils_valid_id(0));
    expect_log(G_LOG_LEVEL_INFO, "No audio devices found");
    expect_no_log();
}

TEST_F(DeviceUtils, LowestValidIdIsSuitableWhateverTheServicesOrder)
{
    devices({{"1", {{"0"}}}, {"0", {{"0"}}}});
    EXPECT_EQ(device_utils_find_suitable_id(), 0);
}

TEST_F(DeviceUtils, OnlyDeviceThreeIsSuitable)
{
    devices({{"3", {{"0"}}}});
    EXPECT_EQ(device_utils_find_suitable_id(), 3);
}

TEST_F(DeviceUtils, DeviceFiveIsTheLastSuitableOne)
{
    devices({{"6", {{"0"}}}, {"5", {{"0"}}}});
    EXPECT_EQ(device_utils_find_suitable_id(), 5);
}

TEST_F(DeviceUtils, DeviceBeyondFiveIsNotSuitable)
{
    devices({{"7", {{"0"}}}, {"6", {{"0"}}}});
    EXPECT_EQ(device_utils_find_suitable_id(), -1);
    expect_no_log();
}

TEST_F(DeviceUtils, SuitableIdIsLookedUpAgainForEachCandidate)
{
    devices({{"3", {{"0"}}}});
    device_utils_find_suitable_id();
    EXPECT_EQ(fake.gets, 4);
}

TEST_F(DeviceUtils, NothingIsSuitableWithoutAList)
{
    EXPECT_EQ(device_utils_find_suitable_id(), -1);
    EXPECT_EQ(fake.gets, 6);
    for (int i = 0; i < 6; i++) {
        expect_log(G_LOG_LEVEL_INFO, "No audio devices found");
    }
    expect_no_log();
}

} // namespace
