/* Fuzzes the web program: the request of the web server, the answer, and the page. */

#include <array>
#include <cerrno>
#include <cstring>
#include <glib.h>
#include <string>
#include <sys/mman.h>
#include <systemd/sd-bus.h>
#include <unistd.h>

#include "cgi_answer.h"
#include "cgi_page.h"
#include "cgi_request.h"
#include "fuzz_input.h"

/* An input has a line for each of these, and then the body. */
static constexpr std::array<const char *, 8> VARIABLES = {
    "REQUEST_METHOD", "QUERY_STRING", "CONTENT_TYPE", "CONTENT_LENGTH",
    "HTTP_HOST",      "HTTP_ORIGIN",  "HTTP_REFERER", "HTTP_SEC_FETCH_SITE",
};

/* There is no bus, so every action fails. */
extern "C" int __wrap_sd_bus_open_system(sd_bus **)
{
    return -ENOENT;
}

/* Sets the environment, and returns a descriptor from which the body can be read. */
static int set_request(std::string_view text)
{
    for (const char *name : VARIABLES) {
        const size_t end = text.find('\n');
        const std::string value(text.substr(0, end));
        text.remove_prefix(end == text.npos ? text.size() : end + 1);
        g_setenv(name, value.c_str(), true);
    }
    const int fd = memfd_create("body", MFD_CLOEXEC);
    g_assert(fd >= 0);
    g_assert(write(fd, text.data(), text.size()) == static_cast<ssize_t>(text.size()));
    g_assert(lseek(fd, 0, SEEK_SET) == 0);
    return fd;
}

/* The input must not be able to add a header or to end the headers. */
static void check_answer(const std::string &answer)
{
    const size_t end = answer.find("\r\n\r\n");
    g_assert(end != answer.npos && answer.starts_with("Status: "));
    g_auto(GStrv) lines = g_strsplit(answer.substr(0, end).c_str(), "\r\n", -1);
    for (char **line = lines; *line; line++) {
        g_assert(strstr(*line, ": "));
        for (const char *c = *line; *c != '\0'; c++) {
            g_assert(g_ascii_isprint(*c));
        }
    }
}

/* Does not count what a backslash precedes: the page contains the clips as JSON, too. */
static size_t count_markup(const std::string &page)
{
    size_t count = 0;
    for (size_t i = 0; i < page.size(); i++) {
        if (page[i] == '\\') {
            i++;
        } else {
            count += page[i] == '<' || page[i] == '>' || page[i] == '"';
        }
    }
    return count;
}

/* Neither the request nor the clips may add an element or an attribute to the page. */
static void check_page(const CgiRequest &request, const std::string &text)
{
    CgiState state;
    state.now = {
        .is_known = true,
        .outputs = {{.number = 1, .playing = true, .file = "x", .title = ""}},
        .revision = "",
    };
    state.clips = {{.number = 7, .name = "x", .location = "x", .duration_ms = 1}};
    const size_t expected = count_markup(cgi_page_make(request, state, {}));
    state.clips[0].name = text + "x";
    state.clips[0].location = state.now.outputs[0].file = text + "y";
    g_assert(count_markup(cgi_page_make(request, state, {})) == expected);
}

extern "C" int LLVMFuzzerInitialize(int *, char ***)
{
    fuzz_input_setup("cgi");
    return 0;
}

extern "C" int LLVMFuzzerTestOneInput(const uint8_t *data, size_t size)
{
    const std::string text(reinterpret_cast<const char *>(data), size);
    const int body = set_request(text);
    CgiRequest request;
    const CgiOutcome outcome = cgi_request_read(&request, body);
    if (outcome.result == CGI_OK) {
        g_assert(request.action != CGI_PLAY || request.clip >= 0);
        g_assert(request.volume == CLIENT_NOT_GIVEN ||
                 (request.volume >= 0 && request.volume <= CLIENT_MAX_VOLUME));
        g_assert(request.repeat == CLIENT_NOT_GIVEN || request.repeat >= -1);
        g_assert(request.output == CLIENT_NOT_GIVEN ||
                 (request.output >= 0 && request.output <= CLIENT_MAX_OUTPUT));
    }
    check_answer(cgi_answer_format(cgi_answer_make(request, outcome, body), !request.is_head));
    close(body);
    /* All texts on the bus are UTF-8. */
    g_autofree char *valid = g_utf8_make_valid(text.c_str(), -1);
    check_page(request, valid);
    return 0;
}
