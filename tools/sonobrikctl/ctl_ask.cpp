#include "ctl_ask.h"

#include <cstdio>
#include <glib.h>
#include <unistd.h>

#include "client_text.h"
#include "ctl_say.h"

bool ctl_ask_possible()
{
    return isatty(STDIN_FILENO);
}

bool ctl_ask(const std::string &question)
{
    ctl_flush();
    fprintf(stderr, "%s [y/N] ", client_text_escape(question).c_str());
    fflush(stderr);
    char line[16] = "";
    if (!fgets(line, sizeof line, stdin)) {
        fputc('\n', stderr);
        return false;
    }
    g_strstrip(line);
    return g_ascii_strcasecmp(line, "y") == 0 || g_ascii_strcasecmp(line, "yes") == 0;
}
