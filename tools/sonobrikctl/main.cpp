#include "ctl.h"

#include <algorithm>
#include <cerrno>
#include <clocale>
#include <csignal>
#include <cstdio>
#include <cstring>
#include <string_view>

#include "ctl_options.h"
#include "ctl_say.h"
#include "ctl_terminal.h"

namespace
{

constexpr CtlCommand COMMANDS[] = {
    {
        .name = "play",
        .operands = "CLIP|FILE|PATTERN",
        .min_operands = 1,
        .max_operands = 1,
        .summary = "Plays a clip, a file, or a random match of PATTERN.",
        .run = ctl_play,
    },
    {
        .name = "status",
        .operands = "",
        .min_operands = 0,
        .max_operands = 0,
        .summary = "Shows what is playing.",
        .run = ctl_status,
    },
    {
        .name = "stop",
        .operands = "",
        .min_operands = 0,
        .max_operands = 0,
        .summary = "Stops playback.",
        .run = ctl_stop,
    },
    {
        .name = "list",
        .operands = "",
        .min_operands = 0,
        .max_operands = 0,
        .summary = "Lists the stored clips.",
        .run = ctl_list,
    },
    {
        .name = "add",
        .operands = "FILE…|FOLDER",
        .min_operands = 1,
        .max_operands = G_MAXUINT,
        .summary = "Stores files as clips and prints their numbers.",
        .run = ctl_add,
    },
    {
        .name = "rename",
        .operands = "CLIP NAME",
        .min_operands = 2,
        .max_operands = 2,
        .summary = "Renames a clip.",
        .run = ctl_rename,
    },
    {
        .name = "remove",
        .operands = "CLIP",
        .min_operands = 1,
        .max_operands = 1,
        .summary = "Removes a clip and, with --file, its file.",
        .run = ctl_remove,
    },
    {
        .name = "check",
        .operands = "FILE…",
        .min_operands = 1,
        .max_operands = G_MAXUINT,
        .summary = "Reports whether the daemon can play each file.",
        .run = ctl_check,
    },
    {
        .name = "sync",
        .operands = "",
        .min_operands = 0,
        .max_operands = 0,
        .summary = "Re-sends the clip list to the on-screen controls.",
        .run = ctl_sync,
    },
    {
        .name = "outputs",
        .operands = "",
        .min_operands = 0,
        .max_operands = 0,
        .summary = "Lists the audio outputs.",
        .run = ctl_outputs,
    },
    {
        .name = "monitor",
        .operands = "",
        .min_operands = 0,
        .max_operands = 0,
        .summary = "Prints playback events and added clips, live.",
        .run = ctl_monitor,
    },
};

constexpr int OPERANDS_WIDTH = 17;

void print_help()
{
    printf("Usage:\n  sonobrikctl COMMAND [OPTION…] [ARGUMENT…]\n\n"
           "Plays and manages audio clips through the sonobrik daemon.\n\nCommands:\n");
    for (const CtlCommand &command : COMMANDS) {
        const int blanks = OPERANDS_WIDTH - ctl_terminal_width(command.operands);
        printf("  %-8s %s%*s %s\n", command.name, command.operands, blanks, "", command.summary);
    }
    printf("\nCLIP is a clip's number, name or file.\n"
           "For the options of a command: sonobrikctl help COMMAND\n"
           "With --host [USER@]MACHINE, commands use the daemon of that machine, over ssh.\n");
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

/* Returns the number of words at the start of `words` that are --host and its value. */
size_t count_host_words(char **words)
{
    size_t count = 0;
    while (words[count]) {
        const std::string_view word = words[count];
        const bool has_own_value = word == "--host" || word == "-H";
        if (!has_own_value && !word.starts_with("--host=") && !word.starts_with("-H")) {
            break;
        }
        count += has_own_value && words[count + 1] ? 2 : 1;
    }
    return count;
}

/* Shows the help of the command that `words` name, or the list of commands. */
int run_help(char **words)
{
    words += count_host_words(words);
    if (!*words || g_str_equal(*words, "help") || g_str_equal(*words, "--help") ||
        g_str_equal(*words, "-h")) {
        print_help();
        return CTL_OK;
    }
    const CtlCommand *command = find_command(*words);
    if (!command) {
        ctl_error("unknown command '%s'", *words);
        ctl_error("try 'sonobrikctl --help'");
        return CTL_USAGE;
    }
    char help[] = "--help";
    char *line[] = {*words, help, nullptr};
    return command->run(command, line);
}

int run(char **words)
{
    /* Puts --host behind the command, where the other options are. */
    const size_t host_words = count_host_words(words);
    if (words[host_words]) {
        std::rotate(words, words + host_words, words + host_words + 1);
    } else {
        words += host_words;
    }
    const char *name = *words;
    if (name && (g_str_equal(name, "--help") || g_str_equal(name, "-h"))) {
        print_help();
        return CTL_OK;
    }
    if (name && g_str_equal(name, "help")) {
        return run_help(words + 1 + host_words);
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
        ctl_error("unknown command '%s'", name);
    } else {
        ctl_error("missing command");
    }
    ctl_error("try 'sonobrikctl --help'");
    return CTL_USAGE;
}

} // namespace

int main(int argc, char **argv)
{
    setlocale(LC_ALL, "");
    /* If the reader of a pipe exits, end silently, even if the parent process ignores SIGPIPE. */
    signal(SIGPIPE, SIG_DFL);
    const int status = run(argv + (argc > 0 ? 1 : 0));
    if (!ctl_flush()) {
        ctl_error("cannot write to standard output: %s", g_strerror(errno));
        return status == CTL_OK ? CTL_FAILED : status;
    }
    return status;
}
