/* The location of each line would be send_to_journal(). */
#define SD_JOURNAL_SUPPRESS_LOCATION

#include "platform/log_redirect.h"

#include <algorithm>
#include <array>
#include <atomic>
#include <errno.h>
#include <limits.h>
#include <stdio.h>
#include <string.h>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <syslog.h>
#include <systemd/sd-journal.h>
#include <unistd.h>

#include "log_redirect_socket.h"

/*
 * The longest line, including its newline. A write of this length to a pipe is atomic, so lines of
 * several threads do not mix. Some texts come from clients and can be long, and system logs drop
 * lines that are much longer.
 */
static constexpr size_t MAX_LINE = PIPE_BUF;
static constexpr std::string_view CUT_MARK = " [cut]";

struct Level {
    int glib;
    int syslog;
    const char *word;
};

/* In order of severity: if a line has several levels, the most severe one counts. */
static constexpr std::array<Level, 7> levels = {{
    {G_LOG_LEVEL_ERROR, LOG_CRIT, "fatal"},
    {G_LOG_LEVEL_CRITICAL, LOG_CRIT, "critical"},
    {1 << G_LOG_LEVEL_USER_SHIFT, LOG_ERR, "error"},
    {G_LOG_LEVEL_WARNING, LOG_WARNING, "warning"},
    {G_LOG_LEVEL_MESSAGE, LOG_NOTICE, "notice"},
    {G_LOG_LEVEL_INFO, LOG_INFO, "info"},
    {G_LOG_LEVEL_DEBUG, LOG_DEBUG, "debug"},
}};

/* For user-defined levels other than the daemon's own; their severity is unknown. */
static constexpr Level other_level = {0, LOG_NOTICE, "notice"};

enum class Target { SYSLOG, JOURNAL, CONSOLE };

static const char *log_identity = "";
static int log_facility = LOG_DAEMON;
static const char *log_socket = "/dev/log";
static const char *journal_socket = "/run/systemd/journal/socket";

/* Set on the main thread, read by every thread that logs. */
static std::atomic<int> max_level = LOG_DEBUG;
static std::atomic<Target> target = Target::SYSLOG;

static const Level &find_level(int glib_level)
{
    const auto *level = std::find_if(levels.begin(), levels.end(),
                                     [&](const Level &entry) { return entry.glib & glib_level; });
    return level == levels.end() ? other_level : *level;
}

/*
 * Returns the number of bytes of the first character of `text`, or 0 if it is a control character
 * or not valid UTF-8 and must be escaped.
 */
static size_t printable_length(std::string_view text)
{
    const gunichar character =
        g_utf8_get_char_validated(text.data(), static_cast<gssize>(text.size()));
    const bool invalid =
        character == static_cast<gunichar>(-1) || character == static_cast<gunichar>(-2);
    if (invalid || character < 0x20 || (character >= 0x7f && character < 0xa0)) {
        return 0;
    }
    return static_cast<size_t>(g_utf8_next_char(text.data()) - text.data());
}

/* Appends `text` with escapes. A line that would exceed `limit` bytes ends with a mark instead. */
static void append_escaped(std::string *line, std::string_view text, size_t limit)
{
    limit -= CUT_MARK.size();
    while (!text.empty()) {
        char escaped[sizeof "\\xff"];
        std::string_view piece = text.substr(0, printable_length(text));
        size_t used = piece.size();
        if (used == 0) {
            snprintf(escaped, sizeof escaped, "\\x%02x", static_cast<unsigned char>(text.front()));
            piece = escaped;
            used = 1;
        }
        if (line->size() + piece.size() > limit) {
            line->append(CUT_MARK);
            return;
        }
        line->append(piece);
        text.remove_prefix(used);
    }
}

/* Returns true if a log is running behind `path`. Without one, the line would be lost silently. */
static bool log_listens(const char *path)
{
    const int fd = socket(AF_UNIX, SOCK_DGRAM | SOCK_CLOEXEC, 0);
    if (fd < 0) {
        return false;
    }
    struct sockaddr_un address = {AF_UNIX, ""};
    g_strlcpy(address.sun_path, path, sizeof address.sun_path);
    const int result =
        connect(fd, reinterpret_cast<const struct sockaddr *>(&address), sizeof address);
    /* EPROTOTYPE means that the log listens on a stream socket, which syslog(3) can use too. */
    const bool listens = result == 0 || errno == EPROTOTYPE;
    close(fd);
    return listens;
}

static void write_to_stderr(const std::string &line)
{
    while (write(STDERR_FILENO, line.data(), line.size()) < 0 && errno == EINTR) {
    }
}

/*
 * Returns true for debug lines of libraries whose domain is not in G_MESSAGES_DEBUG. They would
 * flood a terminal. A system log receives them and applies its own threshold.
 */
static bool is_noise(const Level &level, const std::string &domain)
{
    return level.glib == G_LOG_LEVEL_DEBUG && !domain.empty() &&
           g_log_writer_default_would_drop(G_LOG_LEVEL_DEBUG, domain.c_str());
}

static void send_to_journal(int level, const char *text)
{
    sd_journal_send("MESSAGE=%s", text, "PRIORITY=%d", level, "SYSLOG_IDENTIFIER=%s", log_identity,
                    "SYSLOG_FACILITY=%d", LOG_FAC(log_facility), nullptr);
}

/* Writes one line to the log or standard error. The daemon's own lines have no domain. */
static void log_line(int glib_level, const std::string &domain, std::string_view message)
{
    const Level &level = find_level(glib_level);
    if (level.syslog > max_level) {
        return;
    }
    const Target log = target;
    const bool listens =
        log != Target::CONSOLE && log_listens(log == Target::JOURNAL ? journal_socket : log_socket);
    const bool to_stderr = (!listens || isatty(STDERR_FILENO)) && !is_noise(level, domain);

    std::string line =
        std::string(log_identity) + '[' + std::to_string(getpid()) + "]: " + level.word + ": ";
    const size_t text_start = line.size();
    if (!domain.empty()) {
        append_escaped(&line, domain, MAX_LINE / 2);
        line += ": ";
    }
    append_escaped(&line, message, MAX_LINE - strlen("\n"));
    if (listens && log == Target::JOURNAL) {
        send_to_journal(level.syslog, line.c_str() + text_start);
    } else if (listens) {
        syslog(level.syslog, "%s", line.c_str() + text_start);
    }
    if (to_stderr) {
        write_to_stderr(line + '\n');
    }
}

static void handle_log(const gchar *domain, GLogLevelFlags level, const gchar *message, gpointer)
{
    log_line(level, domain ? domain : "", message ? message : "(null)");
}

/* Returns the text of a field. If the field's length is negative, the text ends with a NUL. */
static std::string_view field_text(const GLogField &field)
{
    const char *text = static_cast<const char *>(field.value);
    return field.length < 0 ? text : std::string_view(text, static_cast<size_t>(field.length));
}

/* Receives the lines of libraries with structured logging, which bypass the default handler. */
static GLogWriterOutput write_structured(GLogLevelFlags level, const GLogField *fields,
                                         gsize n_fields, gpointer)
{
    std::string_view domain;
    std::string_view message;
    for (const GLogField *field = fields; field != fields + n_fields; ++field) {
        if (strcmp(field->key, "MESSAGE") == 0) {
            message = field_text(*field);
        } else if (strcmp(field->key, "GLIB_DOMAIN") == 0) {
            domain = field_text(*field);
        }
    }
    log_line(level, std::string(domain), message);
    return G_LOG_WRITER_HANDLED;
}

void log_redirect_to_syslog(const char *identity, int facility)
{
    log_identity = identity;
    log_facility = facility;
    openlog(identity, LOG_PID, facility);
    g_log_set_default_handler(handle_log, nullptr);
    g_log_set_writer_func(write_structured, nullptr, nullptr);
}

void log_redirect_set_level(int level)
{
    max_level = level;
}

/*
 * The kernel's log ("kmsg") is missing: the daemon's user may not write there, and its sandbox
 * hides the device.
 */
bool log_redirect_set_target(const char *name)
{
    if (strcmp(name, "syslog") == 0) {
        target = Target::SYSLOG;
    } else if (strcmp(name, "console") == 0) {
        target = Target::CONSOLE;
    } else if (strcmp(name, "journal") == 0 && log_listens(journal_socket)) {
        target = Target::JOURNAL;
    } else {
        return false;
    }
    return true;
}

void log_redirect_set_socket(const char *path)
{
    log_socket = path;
}

void log_redirect_set_journal(const char *path)
{
    journal_socket = path;
}
