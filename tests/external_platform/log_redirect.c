/*
 * Writes the log to standard error. Each line begins with its level, as in "<4>sonobrik: TEXT",
 * which systemd recognises when it reads standard error.
 */

#include "platform/log_redirect.h"

#include <stdio.h>
#include <syslog.h>

static const char *log_identity = "";

static int find_level(GLogLevelFlags level)
{
    if (level & (G_LOG_LEVEL_ERROR | G_LOG_LEVEL_CRITICAL)) {
        return LOG_CRIT;
    }
    if (level & (1 << G_LOG_LEVEL_USER_SHIFT)) {
        return LOG_ERR;
    }
    if (level & G_LOG_LEVEL_WARNING) {
        return LOG_WARNING;
    }
    if (level & G_LOG_LEVEL_INFO) {
        return LOG_INFO;
    }
    return level & G_LOG_LEVEL_DEBUG ? LOG_DEBUG : LOG_NOTICE;
}

static void write_line(GLogLevelFlags level, const char *domain, const char *text)
{
    /* Clients choose parts of the text. Escaped control characters cannot start a new line. */
    g_autofree char *line = g_strescape(text ? text : "", "\"\\");
    fprintf(stderr, "<%d>%s: %s%s%s\n", find_level(level), log_identity, domain ? domain : "",
            domain ? ": " : "", line);
}

static void handle_log(const char *domain, GLogLevelFlags level, const char *text, void *user_data)
{
    (void)user_data;
    write_line(level, domain, text);
}

/* Returns the field's text, as a new string. A length below 0 means that it ends with a NUL. */
static char *copy_field(const GLogField *field)
{
    return field->length < 0 ? g_strdup(field->value)
                             : g_strndup(field->value, (gsize)field->length);
}

/* Receives the lines of libraries with structured logging, which bypass the default handler. */
static GLogWriterOutput write_structured(GLogLevelFlags level, const GLogField *fields,
                                         gsize n_fields, void *user_data)
{
    (void)user_data;
    g_autofree char *domain = NULL;
    g_autofree char *text = NULL;
    for (gsize i = 0; i < n_fields; i++) {
        if (!domain && g_str_equal(fields[i].key, "GLIB_DOMAIN")) {
            domain = copy_field(&fields[i]);
        } else if (!text && g_str_equal(fields[i].key, "MESSAGE")) {
            text = copy_field(&fields[i]);
        }
    }
    write_line(level, domain, text);
    return G_LOG_WRITER_HANDLED;
}

void log_redirect_to_syslog(const char *identity, int facility)
{
    (void)facility;
    log_identity = identity;
    g_log_set_default_handler(handle_log, NULL);
    g_log_set_writer_func(write_structured, NULL, NULL);
}
