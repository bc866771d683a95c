/* The fakes below replace plain functions. A fortified build would call others instead. */
#undef _FORTIFY_SOURCE

#include "platform/log_redirect.h"

#include <cstdarg>
#include <cstdio>
#include <cstdlib>
#include <cstring>
#include <fcntl.h>
#include <functional>
#include <glib.h>
#include <gtest/gtest.h>
#include <pty.h>
#include <string>
#include <sys/socket.h>
#include <sys/un.h>
#include <sys/wait.h>
#include <syslog.h>
#include <thread>
#include <unistd.h>
#include <vector>

#include "log_redirect_socket.h"
#include "temp_dir.h"

using Lines = std::vector<std::string>;

/* The child writes its calls of syslog(3) to this pipe, one packet per call. */
static int syslog_record = -1;

static void record(const std::string &call)
{
    EXPECT_EQ(write(syslog_record, call.data(), call.size()), static_cast<ssize_t>(call.size()));
}

extern "C" void openlog(const char *identity, int options, int facility)
{
    EXPECT_EQ(options & LOG_PID, LOG_PID);
    record(std::string("open ") + identity + " " + std::to_string(facility));
}

static void record_line(int priority, const char *format, va_list arguments)
{
    g_autofree char *text = g_strdup_vprintf(format, arguments);
    record(std::to_string(priority) + " " + text);
}

extern "C" void syslog(int priority, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    record_line(priority, format, arguments);
    va_end(arguments);
}

/* A fortified build of the code under test calls this instead of syslog(). */
extern "C" void __syslog_chk(int priority, int, const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    record_line(priority, format, arguments);
    va_end(arguments);
}

/* Replaces the function of libsystemd. Each format is "FIELD=%s" or "FIELD=%d". */
extern "C" int sd_journal_send(const char *format, ...)
{
    va_list arguments;
    va_start(arguments, format);
    std::string fields = "journal";
    for (; format; format = va_arg(arguments, const char *)) {
        const char *conversion = strstr(format, "=%");
        const std::string name(format, conversion + 1);
        fields += " " + name +
                  (conversion[2] == 's' ? va_arg(arguments, const char *)
                                        : std::to_string(va_arg(arguments, int)));
    }
    va_end(arguments);
    record(fields);
    return 0;
}

/* A pipe in packet mode: each read returns the bytes of one write. */
struct Packets {
    Packets()
    {
        EXPECT_EQ(pipe2(ends, O_DIRECT | O_CLOEXEC), 0);
    }

    /* Returns all packets once the last writer has closed the pipe. */
    Lines drain()
    {
        close(ends[1]);
        Lines packets;
        char buffer[65536];
        ssize_t length;
        while ((length = read(ends[0], buffer, sizeof buffer)) > 0) {
            packets.emplace_back(buffer, static_cast<size_t>(length));
        }
        close(ends[0]);
        return packets;
    }

    int ends[2];
};

/* Each test logs in a child process whose log is redirected. */
class LogRedirect : public ::testing::Test
{
  protected:
    LogRedirect()
    {
        log_redirect_set_socket("log");
        unsetenv("G_MESSAGES_DEBUG");
        unsetenv("G_DEBUG");
    }

    ~LogRedirect() override
    {
        if (listener >= 0) {
            close(listener);
        }
    }

    /* Starts a system log, which listens on a socket of `type`. */
    void listen_to_system_log(int type = SOCK_DGRAM)
    {
        listener = socket(AF_UNIX, type | SOCK_CLOEXEC, 0);
        const sockaddr_un address = {AF_UNIX, "log"};
        ASSERT_EQ(bind(listener, reinterpret_cast<const sockaddr *>(&address), sizeof address), 0);
        if (type == SOCK_STREAM) {
            ASSERT_EQ(listen(listener, 1), 0);
        }
    }

    /* Runs `body` in a child with `stderr_fd` as standard error, and waits for its end. */
    void run_with_stderr(int stderr_fd, const std::function<void()> &read_output,
                         const std::function<void()> &body)
    {
        Packets calls;
        const pid_t child = fork();
        if (child == 0) {
            syslog_record = calls.ends[1];
            dup2(stderr_fd, STDERR_FILENO);
            log_redirect_to_syslog("sonobrik", LOG_DAEMON);
            body();
            _exit(0);
        }
        read_output();
        to_syslog = calls.drain();
        ASSERT_EQ(waitpid(child, &status, 0), child);
        prefix = "sonobrik[" + std::to_string(child) + "]: ";
        ASSERT_FALSE(to_syslog.empty());
        EXPECT_EQ(to_syslog.front(), "open sonobrik " + std::to_string(LOG_DAEMON));
        to_syslog.erase(to_syslog.begin());
    }

    void run(const std::function<void()> &body)
    {
        Packets output;
        run_with_stderr(
            output.ends[1], [&] { to_stderr = output.drain(); }, body);
    }

    /* Expects that `body` writes `lines` with their prefix to standard error, each in one write. */
    void expect_stderr(const Lines &lines)
    {
        Lines expected;
        for (const std::string &line : lines) {
            expected.push_back(prefix + line + "\n");
        }
        EXPECT_EQ(to_stderr, expected);
    }

    static std::string line_to_syslog(int priority, const std::string &text)
    {
        return std::to_string(priority) + " " + text;
    }

    WorkingTempDir folder;
    int listener = -1;
    Lines to_syslog;
    Lines to_stderr;
    std::string prefix;
    int status = 0;
};

static const auto LEVEL_256 = static_cast<GLogLevelFlags>(256);
static const auto LEVEL_512 = static_cast<GLogLevelFlags>(512);

static void log_at_every_level()
{
    g_log(nullptr, G_LOG_LEVEL_CRITICAL, "one");
    g_log(nullptr, G_LOG_LEVEL_WARNING, "two");
    g_log(nullptr, G_LOG_LEVEL_MESSAGE, "three");
    g_log(nullptr, G_LOG_LEVEL_INFO, "four");
    g_log(nullptr, G_LOG_LEVEL_DEBUG, "five");
    g_log(nullptr, LEVEL_256, "six");
    g_log(nullptr, LEVEL_512, "seven");
}

TEST_F(LogRedirect, MapsLevelsToPriorities)
{
    listen_to_system_log();
    run(log_at_every_level);
    const Lines expected = {
        line_to_syslog(LOG_CRIT, "one"),     line_to_syslog(LOG_WARNING, "two"),
        line_to_syslog(LOG_NOTICE, "three"), line_to_syslog(LOG_INFO, "four"),
        line_to_syslog(LOG_DEBUG, "five"),   line_to_syslog(LOG_ERR, "six"),
        line_to_syslog(LOG_NOTICE, "seven"),
    };
    EXPECT_EQ(to_syslog, expected);
}

TEST_F(LogRedirect, WritesNothingToStandardErrorWhileASystemLogListens)
{
    listen_to_system_log();
    run(log_at_every_level);
    expect_stderr({});
}

TEST_F(LogRedirect, WritesEveryLevelToStandardErrorWithoutASystemLog)
{
    run(log_at_every_level);
    expect_stderr({"critical: one", "warning: two", "notice: three", "info: four", "debug: five",
                   "error: six", "notice: seven"});
    EXPECT_TRUE(to_syslog.empty());
}

TEST_F(LogRedirect, TakesASocketThatNobodyReadsForNoSystemLog)
{
    listen_to_system_log();
    close(listener);
    listener = -1;
    run([] { g_log(nullptr, G_LOG_LEVEL_WARNING, "text"); });
    expect_stderr({"warning: text"});
}

TEST_F(LogRedirect, TakesAStreamSocketForASystemLog)
{
    listen_to_system_log(SOCK_STREAM);
    run([] { g_log(nullptr, G_LOG_LEVEL_WARNING, "text"); });
    EXPECT_EQ(to_syslog, Lines{line_to_syslog(LOG_WARNING, "text")});
    expect_stderr({});
}

TEST_F(LogRedirect, NoticesASystemLogThatComesLater)
{
    run([this] {
        g_log(nullptr, G_LOG_LEVEL_WARNING, "before");
        listen_to_system_log();
        g_log(nullptr, G_LOG_LEVEL_WARNING, "after");
    });
    expect_stderr({"warning: before"});
    EXPECT_EQ(to_syslog, Lines{line_to_syslog(LOG_WARNING, "after")});
}

TEST_F(LogRedirect, DropsLinesBelowTheLevel)
{
    listen_to_system_log();
    run([] {
        log_redirect_set_level(LOG_ERR);
        log_at_every_level();
        log_redirect_set_level(LOG_DEBUG);
        g_log(nullptr, G_LOG_LEVEL_DEBUG, "again");
    });
    const Lines expected = {line_to_syslog(LOG_CRIT, "one"), line_to_syslog(LOG_ERR, "six"),
                            line_to_syslog(LOG_DEBUG, "again")};
    EXPECT_EQ(to_syslog, expected);
}

TEST_F(LogRedirect, WritesOnlyToStandardErrorIfTheTargetIsTheConsole)
{
    listen_to_system_log();
    run([] {
        EXPECT_TRUE(log_redirect_set_target("console"));
        g_log(nullptr, G_LOG_LEVEL_WARNING, "here");
        EXPECT_TRUE(log_redirect_set_target("syslog"));
        g_log(nullptr, G_LOG_LEVEL_WARNING, "there");
    });
    expect_stderr({"warning: here"});
    EXPECT_EQ(to_syslog, Lines{line_to_syslog(LOG_WARNING, "there")});
}

TEST_F(LogRedirect, SendsFieldsToTheJournalIfThatIsTheTarget)
{
    listen_to_system_log();
    log_redirect_set_journal("log"); /* any socket that listens */
    run([] {
        EXPECT_TRUE(log_redirect_set_target("journal"));
        g_log("Lib", G_LOG_LEVEL_WARNING, "100%% text");
    });
    expect_stderr({});
    EXPECT_EQ(to_syslog, (Lines{"journal MESSAGE=Lib: 100% text PRIORITY=4 "
                                "SYSLOG_IDENTIFIER=sonobrik SYSLOG_FACILITY=3"}));
}

TEST_F(LogRedirect, KeepsTheTargetIfTheNewOneIsNotAvailable)
{
    listen_to_system_log();
    log_redirect_set_journal("no-journal");
    run([] {
        EXPECT_FALSE(log_redirect_set_target("journal"));
        EXPECT_FALSE(log_redirect_set_target("kmsg"));
        g_log(nullptr, G_LOG_LEVEL_WARNING, "text");
    });
    EXPECT_EQ(to_syslog, Lines{line_to_syslog(LOG_WARNING, "text")});
    expect_stderr({});
}

TEST_F(LogRedirect, WritesToATerminalBesideTheSystemLog)
{
    listen_to_system_log();
    int terminal;
    int shell;
    ASSERT_EQ(openpty(&terminal, &shell, nullptr, nullptr, nullptr), 0);
    std::string shown;
    const auto read_terminal = [&] {
        close(shell);
        char buffer[256];
        ssize_t length;
        while ((length = read(terminal, buffer, sizeof buffer)) > 0) {
            shown.append(buffer, static_cast<size_t>(length));
        }
        close(terminal);
    };
    run_with_stderr(shell, read_terminal, [] { g_log(nullptr, G_LOG_LEVEL_WARNING, "text"); });
    EXPECT_EQ(shown, prefix + "warning: text\r\n");
    EXPECT_EQ(to_syslog, Lines{line_to_syslog(LOG_WARNING, "text")});
}

TEST_F(LogRedirect, NamesTheDomainOfALibrary)
{
    run([] { g_log("GStreamer", G_LOG_LEVEL_WARNING, "text"); });
    expect_stderr({"warning: GStreamer: text"});
}

TEST_F(LogRedirect, KeepsDebugLinesOfLibrariesOffStandardError)
{
    run([] {
        g_log("GLib-GIO", G_LOG_LEVEL_DEBUG, "noise");
        g_log("GLib-GIO", G_LOG_LEVEL_INFO, "text");
    });
    expect_stderr({"info: GLib-GIO: text"});
}

TEST_F(LogRedirect, WritesDebugLinesOfALibraryThatIsAskedFor)
{
    setenv("G_MESSAGES_DEBUG", "GLib-GIO", 1);
    run([] {
        g_log("GLib-GIO", G_LOG_LEVEL_DEBUG, "wanted");
        g_log("Other", G_LOG_LEVEL_DEBUG, "noise");
    });
    expect_stderr({"debug: GLib-GIO: wanted"});
}

TEST_F(LogRedirect, SendsDebugLinesOfLibrariesToTheSystemLog)
{
    listen_to_system_log();
    run([] { g_log("GLib-GIO", G_LOG_LEVEL_DEBUG, "text"); });
    EXPECT_EQ(to_syslog, Lines{line_to_syslog(LOG_DEBUG, "GLib-GIO: text")});
}

TEST_F(LogRedirect, TakesStructuredLinesToo)
{
    run([] {
        g_log_structured("Lib", G_LOG_LEVEL_WARNING, "CODE_FILE", "a.c", "MESSAGE", "text %d", 1);
        const GLogField fields[] = {{"MESSAGE", "cut here", 3}, {"PRIORITY", "4", -1}};
        g_log_structured_array(G_LOG_LEVEL_INFO, fields, G_N_ELEMENTS(fields));
    });
    expect_stderr({"warning: Lib: text 1", "info: cut"});
}

TEST_F(LogRedirect, SaysThatAFatalLineIsFatalAndAborts)
{
    run([] { g_log(nullptr, G_LOG_LEVEL_ERROR, "the end"); });
    expect_stderr({"fatal: the end"});
    EXPECT_TRUE(WIFSIGNALED(status));
}

TEST_F(LogRedirect, AbortsOnAFatalStructuredLineToo)
{
    listen_to_system_log();
    run([] { g_log_structured(nullptr, G_LOG_LEVEL_ERROR, "MESSAGE", "the end"); });
    EXPECT_EQ(to_syslog, Lines{line_to_syslog(LOG_CRIT, "the end")});
    EXPECT_TRUE(WIFSIGNALED(status));
}

TEST_F(LogRedirect, KeepsTheWordOfALineThatWasMadeFatal)
{
    run([] {
        g_log_set_always_fatal(G_LOG_LEVEL_WARNING);
        g_log(nullptr, G_LOG_LEVEL_WARNING, "text");
    });
    expect_stderr({"warning: text"});
    EXPECT_TRUE(WIFSIGNALED(status));
}

TEST_F(LogRedirect, EscapesControlCharacters)
{
    run([] {
        g_log(nullptr, G_LOG_LEVEL_WARNING,
              "a\nb\tc\rd\x1b[31me\x7f"
              "f\xc2\x85g\xc2\x9b");
    });
    expect_stderr({R"(warning: a\x0ab\x09c\x0dd\x1b[31me\x7ff\xc2\x85g\xc2\x9b)"});
}

TEST_F(LogRedirect, EscapesForTheSystemLogToo)
{
    listen_to_system_log();
    run([] { g_log("A\nB", G_LOG_LEVEL_WARNING, "a\nb"); });
    EXPECT_EQ(to_syslog, Lines{line_to_syslog(LOG_WARNING, R"(A\x0aB: a\x0ab)")});
}

TEST_F(LogRedirect, EscapesBytesThatAreNotUtf8)
{
    run([] { g_log(nullptr, G_LOG_LEVEL_WARNING, "%s", "caf\xe9 \xc3 \xed\xa0\x80 end\xe2\x82"); });
    expect_stderr({R"(warning: caf\xe9 \xc3 \xed\xa0\x80 end\xe2\x82)"});
}

TEST_F(LogRedirect, LeavesOtherTextAsItIs)
{
    run([] {
        g_log(nullptr, G_LOG_LEVEL_WARNING, "%s", "100 %s \\ caf\u00e9 \u00a0 \u65e5 \U0001f50a");
    });
    expect_stderr({"warning: 100 %s \\ caf\u00e9 \u00a0 \u65e5 \U0001f50a"});
}

TEST_F(LogRedirect, EscapesANulOfAStructuredLine)
{
    run([] {
        const GLogField field = {"MESSAGE", "a\0b", 3};
        g_log_structured_array(G_LOG_LEVEL_WARNING, &field, 1);
    });
    expect_stderr({R"(warning: a\x00b)"});
}

TEST_F(LogRedirect, WritesAnEmptyLine)
{
    run([] { g_log(nullptr, G_LOG_LEVEL_WARNING, "%s", ""); });
    expect_stderr({"warning: "});
}

TEST_F(LogRedirect, CutsAVeryLongLineBetweenTwoCharacters)
{
    for (int shift = 0; shift < 4; shift++) {
        run([shift] {
            std::string text(static_cast<size_t>(shift), 'x');
            for (int i = 0; i < 10000; i++) {
                text += "\n\u65e5";
            }
            g_log(nullptr, G_LOG_LEVEL_WARNING, "%s", text.c_str());
        });
        ASSERT_EQ(to_stderr.size(), 1U);
        const std::string &line = to_stderr.front();
        EXPECT_LE(line.size(), static_cast<size_t>(PIPE_BUF));
        EXPECT_GT(line.size(), static_cast<size_t>(PIPE_BUF - 16));
        EXPECT_TRUE(line.ends_with("\\x0a [cut]\n") || line.ends_with("\u65e5 [cut]\n")) << line;
    }
}

TEST_F(LogRedirect, CutsAVeryLongDomain)
{
    run([] { g_log(std::string(10000, 'd').c_str(), G_LOG_LEVEL_WARNING, "text"); });
    ASSERT_EQ(to_stderr.size(), 1U);
    EXPECT_TRUE(to_stderr.front().ends_with("d [cut]: text\n"));
}

TEST_F(LogRedirect, WritesEachLineOfManyThreadsAtOnce)
{
    constexpr size_t threads = 4;
    constexpr size_t lines = 200;
    run([] {
        std::vector<std::thread> writers;
        for (size_t i = 0; i < threads; i++) {
            writers.emplace_back([i] {
                const std::string text(1000 * i + 1, static_cast<char>('a' + i));
                for (size_t line = 0; line < lines; line++) {
                    g_log(nullptr, G_LOG_LEVEL_WARNING, "%s", text.c_str());
                }
            });
        }
        for (std::thread &writer : writers) {
            writer.join();
        }
    });
    EXPECT_EQ(to_stderr.size(), threads * lines);
    for (const std::string &line : to_stderr) {
        ASSERT_TRUE(line.starts_with(prefix + "warning: "));
        const std::string text = line.substr(prefix.size() + strlen("warning: "));
        const size_t writer = static_cast<size_t>(text.front() - 'a');
        ASSERT_EQ(text, std::string(1000 * writer + 1, text.front()) + "\n");
    }
}
