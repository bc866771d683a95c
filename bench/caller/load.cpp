#include "modes.h"

#include <cstdio>
#include <cstdlib>
#include <vector>

#include "bus_call.h"
#include "print.h"

namespace
{

struct Load;

struct Caller {
    Load *load;
    sd_bus *bus;
    uint64_t sent;
};

struct Load {
    BusCall call;
    sd_event *event;
    uint64_t end;
    size_t waiting; /* callers without an answer */
    Times times;
};

int on_answer(sd_bus_message *message, void *user_data, sd_bus_error *);

void send(Caller *caller)
{
    sd_bus_message *message = bus_call_new_message(caller->bus, caller->load->call);
    caller->sent = bus_call_get_time();
    const int r = sd_bus_call_async(caller->bus, nullptr, message, on_answer, caller, UINT64_MAX);
    sd_bus_message_unref(message);
    if (r < 0) {
        bus_call_fail(caller->load->call.method, r);
    }
}

int on_answer(sd_bus_message *message, void *user_data, sd_bus_error *)
{
    auto *caller = static_cast<Caller *>(user_data);
    Load *load = caller->load;
    const uint64_t now = bus_call_get_time();
    bus_call_check(load->call, sd_bus_message_get_error(message));
    load->times.push_back(now - caller->sent);
    if (now < load->end) {
        send(caller);
    } else if (--load->waiting == 0) {
        sd_event_exit(load->event, 0);
    }
    return 0;
}

} // namespace

int mode_load(int, char **argv)
{
    Load load = {};
    load.call = bus_call_parse(argv[2]);
    std::vector<Caller> callers(strtoul(argv[1], nullptr, 10));
    load.waiting = callers.size();
    int r = sd_event_new(&load.event);
    for (Caller &caller : callers) {
        caller = {&load, bus_call_open(), 0};
        r = r < 0 ? r : sd_bus_attach_event(caller.bus, load.event, SD_EVENT_PRIORITY_NORMAL);
    }
    const uint64_t begin = bus_call_get_time();
    load.end = begin + static_cast<uint64_t>(strtod(argv[0], nullptr) * 1e9);
    for (Caller &caller : callers) {
        send(&caller);
    }
    r = r < 0 ? r : sd_event_loop(load.event);
    if (r < 0) {
        bus_call_fail("the event loop", r);
    }
    const double seconds = static_cast<double>(bus_call_get_time() - begin) / 1e9;
    for (const Caller &caller : callers) {
        sd_bus_flush_close_unref(caller.bus);
    }
    sd_event_unref(load.event);
    printf("{\"seconds\": %f, \"times\": ", seconds);
    print_list(load.times);
    printf("}\n");
    return EXIT_SUCCESS;
}
