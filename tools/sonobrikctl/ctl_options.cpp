#include "ctl_options.h"

#include "ctl_say.h"

char **ctl_options_read(const CtlCommand *command, char **words, const GOptionEntry *entries,
                        guint least, guint most)
{
    /* Operands are taken as they are: names of files need not be text. */
    g_auto(GStrv) operands = nullptr;
    const GOptionEntry rest[] = {
        {G_OPTION_REMAINING, 0, 0, G_OPTION_ARG_FILENAME_ARRAY, &operands, nullptr,
         command->operands},
        {},
    };
    g_autofree char *program = g_strdup_printf("sonobrikctl %s", command->name);
    g_set_prgname(program);
    g_autoptr(GOptionContext) context = g_option_context_new(nullptr);
    g_option_context_set_summary(context, command->summary);
    g_option_context_add_main_entries(context, rest, nullptr);
    if (entries) {
        g_option_context_add_main_entries(context, entries, nullptr);
    }
    g_auto(GStrv) arguments = g_strdupv(words);
    g_autoptr(GError) error = nullptr;
    if (!g_option_context_parse_strv(context, &arguments, &error)) {
        ctl_error("%s", error->message);
    } else {
        const guint count = operands ? g_strv_length(operands) : 0;
        if (count >= least && count <= most) {
            return operands ? g_steal_pointer(&operands) : g_new0(char *, 1);
        }
        ctl_error(count < least ? "%s: an argument is missing" : "%s: too many arguments",
                  command->name);
    }
    ctl_error("see: sonobrikctl %s --help", command->name);
    return nullptr;
}

bool ctl_options_number(const char *option, const char *text, gint64 least, gint64 most,
                        gint64 *number)
{
    if (!text || g_ascii_string_to_signed(text, 10, least, most, number, nullptr)) {
        return true;
    }
    ctl_error("%s takes a number from %" G_GINT64_FORMAT " to %" G_GINT64_FORMAT ", not '%s'",
              option, least, most, text);
    return false;
}
