#include "modes.h"

#include <cerrno>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <unistd.h>

#include "bus_call.h"
#include "card.h"
#include "print.h"

namespace
{

void remove_record(const std::string &folder, int number)
{
    const std::string path = folder + "/M" + std::to_string(number) + ".json";
    if (unlink(path.c_str()) < 0) {
        bus_call_fail(path, errno);
    }
}

std::vector<BusCall> parse_calls(int argc, char **argv)
{
    std::vector<BusCall> calls;
    calls.reserve(static_cast<size_t>(argc));
    for (int i = 0; i < argc; i++) {
        calls.push_back(bus_call_parse(argv[i]));
    }
    return calls;
}

} // namespace

int mode_calls(int argc, char **argv)
{
    const long count = strtol(argv[0], nullptr, 10);
    const bool removes = strcmp(argv[1], "-r") == 0 && argc > 3;
    const int options = removes ? 3 : 1;
    const std::vector<BusCall> calls = parse_calls(argc - options, argv + options);
    std::vector<Times> times(calls.size());
    sd_bus *bus = bus_call_open();
    for (long n = 0; n < count; n++) {
        for (size_t i = 0; i < calls.size(); i++) {
            const BusCallResult result = bus_call_make(bus, calls[i]);
            times[i].push_back(result.answered - result.sent);
            if (removes) {
                remove_record(argv[2], result.number);
            }
        }
    }
    sd_bus_flush_close_unref(bus);
    print_lists(times);
    return EXIT_SUCCESS;
}

int mode_play(int argc, char **argv)
{
    const long count = strtol(argv[0], nullptr, 10);
    Card card = card_open(argv[1]);
    const std::vector<BusCall> calls = parse_calls(argc - 2, argv + 2);
    std::vector<Times> times(calls.size());
    sd_bus *bus = bus_call_open();
    for (long n = 0; n < count; n++) {
        for (size_t i = 0; i < calls.size(); i++) {
            card_forget(&card);
            const BusCallResult result = bus_call_make(bus, calls[i]);
            times[i].push_back(card_wait_start(&card) - result.sent);
            bus_call_make(bus, {calls[i].name, "StopPlayingClip", {""}});
        }
    }
    sd_bus_flush_close_unref(bus);
    print_lists(times);
    return EXIT_SUCCESS;
}
