#include "fuzz_bus.h"

#include <glib.h>
#include <sys/socket.h>

#include "autoptr.h"
#include "bus_text.h"

namespace
{

/* The nesting of variants; D-Bus allows 64 levels. */
constexpr int MAX_DEPTH = 3;
constexpr size_t MAX_TEXT = 300;

void process(sd_bus *bus)
{
    int r = 1;
    while (r > 0) {
        r = sd_bus_process(bus, nullptr);
    }
    g_assert(r == 0);
}

int keep_reply(sd_bus_message *reply, void *place, sd_bus_error *)
{
    *static_cast<sd_bus_message **>(place) = sd_bus_message_ref(reply);
    return 1;
}

void append_dict(sd_bus_message *m, FuzzedDataProvider *input, int depth);

/* Appends a value to the open variant of type `type`. */
void append_content(sd_bus_message *m, const char *type, FuzzedDataProvider *input, int depth)
{
    const std::string text = fuzz_bus_text(input);
    int r = 0;
    switch (*type) {
    case 'y':
        r = sd_bus_message_append(m, "y", input->ConsumeIntegral<uint8_t>());
        break;
    case 'b':
        r = sd_bus_message_append(m, "b", input->ConsumeBool());
        break;
    case 'i':
        r = sd_bus_message_append(m, "i", input->ConsumeIntegral<int32_t>());
        break;
    case 'x':
        r = sd_bus_message_append(m, "x", input->ConsumeIntegral<int64_t>());
        break;
    case 's':
        r = sd_bus_message_append(m, "s", text.c_str());
        break;
    case '(':
        r = sd_bus_message_append(m, "(is)", input->ConsumeIntegral<int32_t>(), text.c_str());
        break;
    case 'v':
        r = sd_bus_message_append(m, "v", "s", text.c_str());
        break;
    default:
        if (type[1] == 'y') {
            r = sd_bus_message_append_array(m, 'y', text.data(), text.size());
        } else if (type[1] == 's') {
            r = sd_bus_message_append(m, "as", 2, text.c_str(), "");
        } else {
            append_dict(m, input, depth);
        }
    }
    g_assert(r >= 0);
}

void append_variant(sd_bus_message *m, FuzzedDataProvider *input, int depth)
{
    static const char *const types[] = {"s", "ay", "i", "b", "x", "y", "(is)", "v", "as", "a{sv}"};
    const size_t last = std::size(types) - (depth < MAX_DEPTH ? 1 : 2);
    const char *type = types[input->ConsumeIntegralInRange<size_t>(0, last)];
    g_assert(sd_bus_message_open_container(m, SD_BUS_TYPE_VARIANT, type) >= 0);
    append_content(m, type, input, depth);
    g_assert(sd_bus_message_close_container(m) >= 0);
}

void append_dict(sd_bus_message *m, FuzzedDataProvider *input, int depth)
{
    g_assert(sd_bus_message_open_container(m, SD_BUS_TYPE_ARRAY, "{sv}") >= 0);
    for (int i = input->ConsumeIntegralInRange(0, 3); i > 0; i--) {
        const std::string key = fuzz_bus_text(input);
        g_assert(sd_bus_message_open_container(m, SD_BUS_TYPE_DICT_ENTRY, "sv") >= 0);
        g_assert(sd_bus_message_append(m, "s", key.c_str()) >= 0);
        append_variant(m, input, depth + 1);
        g_assert(sd_bus_message_close_container(m) >= 0);
    }
    g_assert(sd_bus_message_close_container(m) >= 0);
}

} // namespace

FuzzBus fuzz_bus_connect()
{
    FuzzBus bus = {};
    int ends[2];
    g_assert(socketpair(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC | SOCK_NONBLOCK, 0, ends) == 0);
    g_assert(sd_bus_new(&bus.client) >= 0 && sd_bus_new(&bus.server) >= 0);
    g_assert(sd_bus_set_fd(bus.client, ends[0], ends[0]) >= 0);
    g_assert(sd_bus_set_fd(bus.server, ends[1], ends[1]) >= 0);
    g_assert(sd_bus_set_server(bus.server, true,
                               SD_ID128_MAKE(1, 2, 3, 4, 5, 6, 7, 8, 9, a, b, c, d, e, f, 0)) >= 0);
    g_assert(sd_bus_start(bus.server) >= 0 && sd_bus_start(bus.client) >= 0);
    while (sd_bus_is_ready(bus.client) == 0 || sd_bus_is_ready(bus.server) == 0) {
        process(bus.client);
        process(bus.server);
    }
    return bus;
}

sd_bus_message *fuzz_bus_call(const FuzzBus &bus, sd_bus_message *call)
{
    g_autoptr(sd_bus_message) owned_call = call;
    sd_bus_message *reply = nullptr;
    const uint64_t forever = UINT64_MAX;
    g_assert(sd_bus_call_async(bus.client, nullptr, owned_call, keep_reply, &reply, forever) >= 0);
    while (!reply) {
        process(bus.client);
        process(bus.server);
    }
    return reply;
}

std::string fuzz_bus_text(FuzzedDataProvider *input)
{
    const std::string bytes = input->ConsumeRandomLengthString(MAX_TEXT);
    g_autofree char *text = bus_text_make_valid(bytes.c_str());
    return text;
}

void fuzz_bus_append_variant(sd_bus_message *m, FuzzedDataProvider *input)
{
    append_variant(m, input, 0);
}
