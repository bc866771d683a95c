#include "modes.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <ctime>
#include <set>
#include <spawn.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bus_call.h"
#include "card.h"
#include "print.h"

namespace
{

constexpr uint64_t DEADLINE_US = 10000000;

struct Program {
    std::string path;
    std::vector<std::string> names;
    Times start;
    Times resident;
    Times first; /* clips */
    Times later;
};

/* Programs that own a name at the moment. */
std::set<std::string> owned;

/* Programs are written as PATH|NAME|NAME. */
Program parse_program(const char *text)
{
    const BusCall parts = bus_call_parse(text);
    Program program = {parts.name, {parts.method}, {}, {}, {}, {}};
    program.names.insert(program.names.end(), parts.arguments.begin(), parts.arguments.end());
    return program;
}

int on_owner_changed(sd_bus_message *message, void *, sd_bus_error *)
{
    const char *name = nullptr;
    const char *before = nullptr;
    const char *after = nullptr;
    if (sd_bus_message_read(message, "sss", &name, &before, &after) >= 0) {
        if (*after) {
            owned.insert(name);
        } else {
            owned.erase(name);
        }
    }
    return 0;
}

/* Waits until all names have an owner, or none has. */
void wait_names(sd_bus *bus, const Program &program, bool wanted)
{
    for (const std::string &name : program.names) {
        while (owned.contains(name) != wanted) {
            int r = sd_bus_process(bus, nullptr);
            if (r == 0) {
                r = sd_bus_wait(bus, DEADLINE_US);
                r = r == 0 ? -ETIMEDOUT : r;
            }
            if (r < 0) {
                bus_call_fail(program.path, r);
            }
        }
    }
}

pid_t spawn(const Program &program)
{
    std::vector<std::string> words = {program.path};
    words.insert(words.end(), program.names.begin(), program.names.end());
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string &word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    pid_t pid = 0;
    const int r =
        posix_spawn(&pid, program.path.c_str(), nullptr, nullptr, arguments.data(), environ);
    if (r != 0) {
        bus_call_fail(program.path, r);
    }
    return pid;
}

uint64_t read_resident_kib(pid_t pid)
{
    const std::string path = "/proc/" + std::to_string(pid) + "/status";
    FILE *file = fopen(path.c_str(), "re");
    if (!file) {
        bus_call_fail(path, errno);
    }
    char line[256];
    uint64_t size = 0;
    while (size == 0 && fgets(line, sizeof line, file)) {
        if (strncmp(line, "VmRSS:", 6) == 0) {
            size = strtoull(line + 6, nullptr, 10);
        }
    }
    fclose(file);
    return size;
}

void sleep_ms(long ms)
{
    const timespec time = {.tv_sec = ms / 1000, .tv_nsec = ms % 1000 * 1000000};
    nanosleep(&time, nullptr);
}

/* Plays a clip until its first sample, and returns how long that took. */
uint64_t play(sd_bus *bus, const std::string &name, Card *card, const char *options)
{
    const BusCallResult result = bus_call_make(bus, {name, "StartPlayingClip", {options}});
    const uint64_t time = card_wait_start(card) - result.sent;
    bus_call_make(bus, {name, "StopPlayingClip", {""}});
    return time;
}

void run(sd_bus *bus, Program *program, long idle_ms, Card *card, const char *options)
{
    card_forget(card);
    const uint64_t begin = bus_call_get_time();
    const pid_t pid = spawn(*program);
    wait_names(bus, *program, true);
    program->start.push_back(bus_call_get_time() - begin);
    sleep_ms(idle_ms);
    program->resident.push_back(read_resident_kib(pid));
    const std::string &name = program->names.front();
    program->first.push_back(play(bus, name, card, options));
    sleep_ms(idle_ms);
    program->later.push_back(play(bus, name, card, options));
    kill(pid, SIGTERM);
    waitpid(pid, nullptr, 0);
    wait_names(bus, *program, false);
}

} // namespace

int mode_start(int argc, char **argv)
{
    const long count = strtol(argv[0], nullptr, 10);
    const long idle_ms = strtol(argv[1], nullptr, 10);
    Card card = card_open(argv[2]);
    std::vector<Program> programs;
    for (int i = 4; i < argc; i++) {
        programs.push_back(parse_program(argv[i]));
    }
    sd_bus *bus = bus_call_open();
    const int r =
        sd_bus_match_signal(bus, nullptr, "org.freedesktop.DBus", "/org/freedesktop/DBus",
                            "org.freedesktop.DBus", "NameOwnerChanged", on_owner_changed, nullptr);
    if (r < 0) {
        bus_call_fail("the names cannot be watched", r);
    }
    for (long n = 0; n < count; n++) {
        for (Program &program : programs) {
            run(bus, &program, idle_ms, &card, argv[3]);
        }
    }
    sd_bus_flush_close_unref(bus);
    const char *separator = "[";
    for (const Program &program : programs) {
        printf("%s{\"names\": ", separator);
        print_list(program.start);
        printf(", \"resident\": ");
        print_list(program.resident);
        printf(", \"first\": ");
        print_list(program.first);
        printf(", \"later\": ");
        print_list(program.later);
        printf("}");
        separator = ",\n";
    }
    printf("]\n");
    return EXIT_SUCCESS;
}
