#include "modes.h"

#include <cerrno>
#include <csignal>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <spawn.h>
#include <sstream>
#include <sys/socket.h>
#include <sys/time.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <unistd.h>

#include "bus_call.h"
#include "card.h"
#include "print.h"

namespace
{

/* The parts of a player as the command line has them: KIND|PART|PART. */
struct Player {
    std::string kind;
    std::string start;
    std::string stop;
    sd_bus *bus; /* of the kind "bus" */
    int socket;  /* of the kind "mpd" */
    Times times;
};

pid_t spawn(const std::string &command)
{
    std::vector<std::string> words;
    std::istringstream stream(command);
    for (std::string word; stream >> word;) {
        words.push_back(word);
    }
    std::vector<char *> arguments;
    arguments.reserve(words.size() + 1);
    for (std::string &word : words) {
        arguments.push_back(word.data());
    }
    arguments.push_back(nullptr);
    pid_t pid = 0;
    const int r = posix_spawnp(&pid, arguments[0], nullptr, nullptr, arguments.data(), environ);
    if (r != 0) {
        bus_call_fail(command, r);
    }
    return pid;
}

/* Sends commands to mpd and waits for its answer to them all. Exits if it refuses one. */
void ask_mpd(const Player &player, const std::string &commands)
{
    if (send(player.socket, commands.data(), commands.size(), 0) < 0) {
        bus_call_fail("mpd", errno);
    }
    std::string answer;
    while (!answer.ends_with("OK\n")) {
        char part[256];
        const ssize_t size = recv(player.socket, part, sizeof part, 0);
        if (size <= 0) {
            bus_call_fail("mpd", errno);
        }
        answer.append(part, static_cast<size_t>(size));
        if (answer.starts_with("ACK")) {
            bus_call_fail(answer, EINVAL);
        }
    }
}

int connect_mpd(const std::string &path)
{
    sockaddr_un address = {};
    address.sun_family = AF_UNIX;
    strncpy(address.sun_path, path.c_str(), sizeof address.sun_path - 1);
    const int fd = socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
    if (fd < 0 || connect(fd, reinterpret_cast<sockaddr *>(&address), sizeof address) < 0) {
        bus_call_fail(path, errno);
    }
    const timeval limit = {.tv_sec = 10, .tv_usec = 0};
    setsockopt(fd, SOL_SOCKET, SO_RCVTIMEO, &limit, sizeof limit);
    char greeting[256];
    if (recv(fd, greeting, sizeof greeting, 0) <= 0) {
        bus_call_fail(path, errno);
    }
    return fd;
}

Player parse_player(const char *text)
{
    const BusCall parts = bus_call_parse(text);
    Player player = {parts.name, parts.method, "", nullptr, -1, {}};
    if (!parts.arguments.empty()) {
        player.stop = parts.arguments[0];
    }
    if (player.kind == "bus") {
        player.bus = bus_call_open();
    } else if (player.kind == "mpd") {
        player.socket = connect_mpd(player.stop);
    }
    return player;
}

void play_by_bus(Player *player, Card *card)
{
    const BusCall call = {"com.vesk.Sonobrik", "StartPlayingClip", {player->start}};
    const BusCallResult result = bus_call_make(player->bus, call);
    player->times.push_back(card_wait_start(card) - result.sent);
    bus_call_make(player->bus, {call.name, "StopPlayingClip", {""}});
}

void play_by_mpd(Player *player, Card *card)
{
    const std::string commands =
        "command_list_begin\nclear\nadd \"" + player->start + "\"\nplay\ncommand_list_end\n";
    const uint64_t begin = bus_call_get_time();
    ask_mpd(*player, commands);
    player->times.push_back(card_wait_start(card) - begin);
    ask_mpd(*player, "stop\n");
}

/* A program without a command to stop it plays the clip itself, so a signal stops it. */
void play_by_program(Player *player, Card *card)
{
    const uint64_t begin = bus_call_get_time();
    const pid_t pid = spawn(player->start);
    player->times.push_back(card_wait_start(card) - begin);
    if (player->stop.empty()) {
        kill(pid, SIGTERM);
    }
    waitpid(pid, nullptr, 0);
    if (!player->stop.empty()) {
        waitpid(spawn(player->stop), nullptr, 0);
    }
}

} // namespace

int mode_peers(int argc, char **argv)
{
    const long count = strtol(argv[0], nullptr, 10);
    Card card = card_open(argv[1]);
    std::vector<Player> players;
    for (int i = 2; i < argc; i++) {
        players.push_back(parse_player(argv[i]));
    }
    for (long n = 0; n < count; n++) {
        for (Player &player : players) {
            card_forget(&card);
            if (player.kind == "bus") {
                play_by_bus(&player, &card);
            } else if (player.kind == "mpd") {
                play_by_mpd(&player, &card);
            } else {
                play_by_program(&player, &card);
            }
            /* The end of a program frees the card, even if the program did not close it. */
            if (player.kind != "run" || !player.stop.empty()) {
                card_wait_closed(&card);
            }
        }
    }
    std::vector<Times> times;
    for (const Player &player : players) {
        sd_bus_flush_close_unref(player.bus);
        times.push_back(player.times);
    }
    print_lists(times);
    return EXIT_SUCCESS;
}
