#include "ctl.h"

#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>

#include "ctl_options.h"
#include "ctl_say.h"
#include "ctl_terminal.h"

namespace
{

constexpr CtlCommand COMMANDS[] = {
    {"play", "CLIP|FILE|PATTERN", "Plays a stored clip, a file, or one of many files at random.",
     ctl_play},
    {"stop", "", "Stops what plays.", ctl_stop},
    {"list", "", "Lists the stored clips.", ctl_list},
    {"add", "FILE", "Stores a clip, and prints its number.", ctl_add},
    {"rename", "CLIP NAME", "Gives a clip another name.", ctl_rename},
    {"remove", "CLIP", "Removes a clip; its file stays.", ctl_remove},
    {"check", "FILE…", "Says of each file whether it can be played.", ctl_check},
    {"sync", "", "Tells the on-screen controls of the clips anew.", ctl_sync},
    {"outputs", "", "Lists the audio outputs and what they play.", ctl_outputs},
    {"monitor", "", "Prints what plays, and which clips are added, as it happens.", ctl_monitor},
};

constexpr int OPERANDS_WIDTH = 17;

void print_help()
{
    printf("Usage:\n  sonobrikctl COMMAND [OPTION…] [ARGUMENT…]\n\n"
           "Plays audio clips, and keeps a list of them, by the daemon sonobrik.\n\nCommands:\n");
    for (const CtlCommand &command : COMMANDS) {
        const int blanks = OPERANDS_WIDTH - ctl_terminal_width(command.operands);
        printf("  %-8s %s%*s %s\n", command.name, command.operands, blanks, "", command.summary);
    }
    printf("\nCLIP is a clip's number or name. What a command takes: sonobrikctl COMMAND --help\n");
}

const CtlCommand *find_command(const char *name)
{
    for (const CtlCommand &command : COMMANDS) {
        if (g_str_equal(command.name, name)) {
            return &command;
        }
    }
    return nullptr;
}

int run(char **words)
{
    const char *name = *words;
    if (name && (g_str_equal(name, "--help") || g_str_equal(name, "-h"))) {
        print_help();
        return CTL_OK;
    }
    if (name && g_str_equal(name, "--version")) {
        printf("sonobrikctl " SONOBRIK_VERSION "\n");
        return CTL_OK;
    }
    const CtlCommand *command = name ? find_command(name) : nullptr;
    if (command) {
        return command->run(command, words);
    }
    if (name) {
        ctl_error("there is no command '%s'", name);
    } else {
        ctl_error("a command is missing");
    }
    ctl_error("see: sonobrikctl --help");
    return CTL_USAGE;
}

} // namespace

int main(int argc, char **argv)
{
    setlocale(LC_ALL, "");
    /* A reader of the output that has enough ends the program without a word, whoever started it.
     */
    signal(SIGPIPE, SIG_DFL);
    const int status = run(argv + (argc > 0 ? 1 : 0));
    if (fflush(stdout) != 0 || ferror(stdout)) {
        ctl_error("cannot write: %s", g_strerror(errno));
        return status == CTL_OK ? CTL_FAILED : status;
    }
    return status;
}
