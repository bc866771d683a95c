#include "ctl_host.h"

#include <glib.h>

#include "ctl_say.h"

namespace
{

std::string other_machine;

} // namespace

bool ctl_host_set(const char *machine)
{
    other_machine = machine ? machine : "";
    if (!machine) {
        return true;
    }
    /* ssh and its proxy commands could take "-…" for an option. */
    if (*machine == '-' || *machine == '\0') {
        ctl_error("--host takes the name of a machine, not '%s'", machine);
        return false;
    }
    return true;
}

const char *ctl_host()
{
    return other_machine.empty() ? nullptr : other_machine.c_str();
}

std::string ctl_host_command(const char *command)
{
    return other_machine.empty() ? command : std::string(command) + " (on '" + other_machine + "')";
}

std::string ctl_host_self(const char *arguments)
{
    if (other_machine.empty()) {
        return std::string("sonobrikctl ") + arguments;
    }
    g_autofree char *machine = g_shell_quote(other_machine.c_str());
    return std::string("sonobrikctl --host ") + machine + " " + arguments;
}

bool ctl_host_check_path(const char *path)
{
    if (other_machine.empty() || *path == '/') {
        return true;
    }
    ctl_error("'%s' is a relative path; with --host, files are those of '%s', so give the whole "
              "path there",
              path, other_machine.c_str());
    ctl_error("to copy a file there first: scp");
    return false;
}
