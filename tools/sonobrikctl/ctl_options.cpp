#include "ctl_options.h"

#include <initializer_list>

#include "client_bus.h"
#include "ctl_host.h"
#include "ctl_say.h"

namespace
{

/* Returns the option of this letter or, if `letter` is 0, of this name, or null. */
const GOptionEntry *find_option(std::initializer_list<const GOptionEntry *> tables, char letter,
                                const char *name)
{
    for (const GOptionEntry *entry : tables) {
        for (; entry && entry->long_name; entry++) {
            if (letter != 0 ? entry->short_name == letter : g_str_equal(entry->long_name, name)) {
                return entry;
            }
        }
    }
    return nullptr;
}

/* Returns the position in the group of letters `word`, such as "-wv50", of the first option with a
 * value. Returns 0 if there is none, or if a letter before it is not an option. */
size_t find_value_letter(std::initializer_list<const GOptionEntry *> tables, const char *word)
{
    for (size_t i = 1; word[i] != '\0'; i++) {
        const GOptionEntry *entry = find_option(tables, word[i], nullptr);
        if (!entry) {
            return 0;
        }
        if (entry->arg != G_OPTION_ARG_NONE) {
            return i;
        }
    }
    return 0;
}

/* Returns `words` with "-v50" as the two words "-v" and "50": GLib does not accept a value in the
 * same word as a letter. The result is to be freed with g_strfreev(). */
char **split_values(std::initializer_list<const GOptionEntry *> tables, char **words)
{
    g_autoptr(GStrvBuilder) split = g_strv_builder_new();
    bool is_value = false; /* of the option before */
    for (; *words && (is_value || !g_str_equal(*words, "--")); words++) {
        const char *word = *words;
        if (is_value || *word != '-') {
            is_value = false;
        } else if (word[1] == '-') {
            const GOptionEntry *entry = find_option(tables, 0, word + 2);
            is_value = entry && entry->arg != G_OPTION_ARG_NONE;
        } else if (const size_t letter = find_value_letter(tables, word)) {
            is_value = word[letter + 1] == '\0';
            if (!is_value) {
                g_autofree char *group = g_strndup(word, letter + 1);
                g_strv_builder_add(split, group);
                word += letter + 1;
            }
        }
        g_strv_builder_add(split, word);
    }
    g_strv_builder_addv(split, const_cast<const char **>(words));
    return g_strv_builder_end(split);
}

/* Returns the operands, to be freed with g_strfreev(), or null after printing an error. */
char **read_operands(const CtlCommand *command, char **words, const GOptionEntry *entries)
{
    g_auto(GStrv) operands = nullptr;
    g_autofree char *host = nullptr;
    const GOptionEntry common[] = {
        ctl_options_value("host", 'H', "Use the daemon of another machine, over ssh",
                          "[USER@]MACHINE", &host),
        {
            .long_name = G_OPTION_REMAINING,
            .short_name = 0,
            .flags = 0,
            .arg = G_OPTION_ARG_FILENAME_ARRAY, /* a file name need not be valid UTF-8 */
            .arg_data = &operands,
            .description = nullptr,
            .arg_description = command->operands,
        },
        {},
    };
    g_autofree char *program = g_strdup_printf("sonobrikctl %s", command->name);
    g_set_prgname(program);
    g_autoptr(GOptionContext) context = g_option_context_new(nullptr);
    g_option_context_set_summary(context, command->summary);
    if (entries) {
        g_option_context_add_main_entries(context, entries, nullptr);
    }
    g_option_context_add_main_entries(context, common, nullptr);
    g_auto(GStrv) arguments = split_values({entries, common}, words);
    g_autoptr(GError) error = nullptr;
    if (!g_option_context_parse_strv(context, &arguments, &error)) {
        ctl_error("%s", error->message);
    } else if (ctl_host_set(host)) {
        const guint count = operands ? g_strv_length(operands) : 0;
        if (count >= command->min_operands && count <= command->max_operands) {
            return operands ? g_steal_pointer(&operands) : g_new0(char *, 1);
        }
        ctl_error(count < command->min_operands ? "%s: missing argument" : "%s: too many arguments",
                  command->name);
    }
    ctl_error("try 'sonobrikctl %s --help'", command->name);
    return nullptr;
}

} // namespace

GOptionEntry ctl_options_flag(const char *name, char letter, const char *help, gboolean *is_given)
{
    return {
        .long_name = name,
        .short_name = letter,
        .flags = 0,
        .arg = G_OPTION_ARG_NONE,
        .arg_data = is_given,
        .description = help,
        .arg_description = nullptr,
    };
}

GOptionEntry ctl_options_value(const char *name, char letter, const char *help,
                               const char *placeholder, char **value)
{
    return {
        .long_name = name,
        .short_name = letter,
        .flags = 0,
        .arg = G_OPTION_ARG_FILENAME,
        .arg_data = value,
        .description = help,
        .arg_description = placeholder,
    };
}

int ctl_options_run(const CtlCommand *command, char **words, const GOptionEntry *entries,
                    const CtlCheck &check, const CtlAction &action)
{
    g_auto(GStrv) operands = read_operands(command, words, entries);
    if (!operands) {
        return CTL_USAGE;
    }
    const int status = check ? check(operands) : CTL_OK;
    if (status != CTL_OK) {
        return status;
    }
    g_autoptr(GError) error = nullptr;
    g_autoptr(sd_bus) bus =
        ctl_host() ? client_bus_open_remote(ctl_host(), &error) : client_bus_open(&error);
    return bus ? action(bus, operands) : ctl_explain_bus(error);
}

bool ctl_options_number(const char *option, const char *text, gint64 min, gint64 max,
                        gint64 *number)
{
    if (!text || g_ascii_string_to_signed(text, 10, min, max, number, nullptr)) {
        return true;
    }
    ctl_error("%s takes a number from %" G_GINT64_FORMAT " to %" G_GINT64_FORMAT ", not '%s'",
              option, min, max, text);
    return false;
}
