/*
 * Calls the daemon and a floor in turn and prints how long each took.
 *
 * usage: caller calls COUNT [-r FOLDER] CALL...
 *        caller play COUNT CARD-FOLDER CALL...
 *        caller peers COUNT CARD-FOLDER PLAYER...
 *        caller start COUNT IDLE-MS CARD-FOLDER OPTIONS PROGRAM|NAME... ...
 *        caller load SECONDS CALLERS CALL
 *
 * A CALL is "NAME|METHOD|ARGUMENT...", see bus_call.h; modes.h describes a PLAYER. Prints one JSON
 * document; times are in ns.
 */

#include <cstdlib>
#include <cstring>

#include "modes.h"

namespace
{

struct Mode {
    const char *name;
    int arguments; /* at least */
    int (*run)(int argc, char **argv);
};

constexpr Mode MODES[] = {
    {"calls", 2, mode_calls}, {"load", 3, mode_load},   {"peers", 3, mode_peers},
    {"play", 3, mode_play},   {"start", 5, mode_start},
};

} // namespace

int main(int argc, char **argv)
{
    for (const Mode &mode : MODES) {
        if (argc >= 2 + mode.arguments && strcmp(argv[1], mode.name) == 0) {
            return mode.run(argc - 2, argv + 2);
        }
    }
    return 2;
}
