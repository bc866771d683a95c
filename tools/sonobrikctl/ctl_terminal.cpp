#include "ctl_terminal.h"

#include <algorithm>
#include <cstdlib>
#include <cstring>
#include <sys/ioctl.h>
#include <unistd.h>

#include "client_text.h"

namespace
{

constexpr const char *BOLD = "\x1b[1m";
constexpr const char *PLAIN = "\x1b[0m";
constexpr const char *ERASE_REST = "\x1b[K";
constexpr const char *GAP = "  ";

constexpr int MIN_BAR = 10;
constexpr int MAX_BAR = 40;
constexpr int DEFAULT_COLUMNS = 80; /* if the terminal does not report its width */

/* Returns as much of the beginning of `text` as fits into `columns`. */
std::string truncate(const std::string &text, int columns)
{
    const char *end = text.c_str();
    int used = 0;
    while (*end != '\0') {
        const char *next = g_utf8_next_char(end);
        used += ctl_terminal_width(std::string(end, next));
        if (used > columns) {
            break;
        }
        end = next;
    }
    return {text.c_str(), end};
}

int count_columns(FILE *terminal)
{
    struct winsize size = {};
    return ioctl(fileno(terminal), TIOCGWINSZ, &size) == 0 && size.ws_col > 0 ? size.ws_col
                                                                              : DEFAULT_COLUMNS;
}

/* Returns `text` cut to `columns`, with a mark at the end if something is missing. */
std::string shorten(const std::string &text, int columns)
{
    if (ctl_terminal_width(text) <= columns) {
        return text;
    }
    const bool is_utf8 = g_get_charset(nullptr);
    return truncate(text, columns - 1) + (is_utf8 ? "…" : "~");
}

/* Reduces the widest columns that may shrink until the table has at most `room` columns. */
void shrink(const CtlTable &table, int room, std::vector<int> *widths)
{
    constexpr int MIN_WIDTH = 8;
    int total = static_cast<int>((widths->size() - 1) * strlen(GAP));
    for (const int width : *widths) {
        total += width;
    }
    for (; total > room; total--) {
        int *widest = nullptr;
        for (size_t i = 0; i < widths->size(); i++) {
            int *width = &(*widths)[i];
            if (i < table.can_shrink.size() && table.can_shrink[i] && *width > MIN_WIDTH &&
                (!widest || *width > *widest)) {
                widest = width;
            }
        }
        if (!widest) {
            return;
        }
        --*widest;
    }
}

std::string draw_bar(double share, int width)
{
    const int done = std::clamp(static_cast<int>(share * width), 0, width);
    std::string bar(done, '=');
    if (done < width) {
        bar += '>';
        bar.append(width - done - 1, ' ');
    }
    return "[" + bar + "] ";
}

} // namespace

bool ctl_terminal_is_rich(FILE *stream)
{
    const char *term = getenv("TERM");
    return isatty(fileno(stream)) && term && *term != '\0' && !g_str_equal(term, "dumb");
}

bool ctl_terminal_has_colour(FILE *stream)
{
    const char *no_colour = getenv("NO_COLOR");
    return ctl_terminal_is_rich(stream) && (!no_colour || *no_colour == '\0');
}

int ctl_terminal_width(const std::string &text)
{
    int width = 0;
    for (const char *at = text.c_str(); *at != '\0'; at = g_utf8_next_char(at)) {
        const gunichar c = g_utf8_get_char(at);
        width += g_unichar_iszerowidth(c) ? 0 : g_unichar_iswide(c) ? 2 : 1;
    }
    return width;
}

void ctl_table_print(const CtlTable *table)
{
    const size_t columns = table->is_right.size();
    std::vector<std::vector<std::string>> rows = table->rows;
    std::vector<int> widths(columns, 0);
    for (auto &row : rows) {
        for (size_t i = 0; i < columns; i++) {
            row[i] = client_text_escape(row[i]);
            widths[i] = std::max(widths[i], ctl_terminal_width(row[i]));
        }
    }
    if (isatty(STDOUT_FILENO)) {
        shrink(*table, count_columns(stdout), &widths);
    }
    bool is_head = ctl_terminal_has_colour(stdout);
    for (const auto &row : rows) {
        std::string line;
        for (size_t i = 0; i < columns; i++) {
            const std::string text = shorten(row[i], widths[i]);
            const std::string blanks(widths[i] - ctl_terminal_width(text), ' ');
            line += i > 0 ? GAP : "";
            line += table->is_right[i] ? blanks + text : text + blanks;
        }
        line.resize(line.find_last_not_of(' ') + 1);
        printf("%s%s%s\n", is_head ? BOLD : "", line.c_str(), is_head ? PLAIN : "");
        is_head = false;
    }
}

void ctl_terminal_redraw(FILE *terminal, const std::string &text)
{
    /* Leaves one column free, because some terminals wrap a full line. */
    fprintf(terminal, "\r%s%s", shorten(text, count_columns(terminal) - 1).c_str(), ERASE_REST);
}

CtlProgress ctl_progress_begin(gint64 length_ms, const char *label)
{
    return {
        .is_shown = ctl_terminal_is_rich(stderr),
        .began_us = g_get_monotonic_time(),
        .length_ms = length_ms,
        .label = client_text_escape(label),
    };
}

void ctl_progress_show(const CtlProgress *progress, bool is_over)
{
    if (!progress->is_shown) {
        return;
    }
    gint64 elapsed_ms = (g_get_monotonic_time() - progress->began_us) / 1000;
    std::string times = client_text_duration(elapsed_ms);
    const bool has_length = progress->length_ms > 0;
    if (has_length) {
        elapsed_ms = is_over ? progress->length_ms : std::min(elapsed_ms, progress->length_ms);
        times =
            client_text_duration(elapsed_ms) + " / " + client_text_duration(progress->length_ms);
    }
    /* Leaves one column free, because some terminals wrap a full line. */
    int left = count_columns(stderr) - 1 - static_cast<int>(times.size());
    std::string line;
    const int bar = std::min(left - 3, MAX_BAR);
    if (has_length && bar >= MIN_BAR) {
        line = draw_bar(static_cast<double>(elapsed_ms) / static_cast<double>(progress->length_ms),
                        bar);
        left -= static_cast<int>(line.size());
    }
    line += times;
    const int room = left - 2;
    if (room > 0) {
        line += GAP + truncate(progress->label, room);
    }
    fprintf(stderr, "\r%s%s", line.c_str(), ERASE_REST);
    fflush(stderr);
}

void ctl_progress_end(const CtlProgress *progress)
{
    if (progress->is_shown) {
        fputc('\n', stderr);
    }
}
