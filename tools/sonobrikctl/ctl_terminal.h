#pragma once

/* Terminal output: colour, tables and the progress of a clip. */

#include <cstdio>
#include <glib.h>
#include <string>
#include <vector>

/* Returns true if `stream` is a terminal that understands control sequences. */
bool ctl_terminal_is_rich(FILE *stream);

/* Returns true if `stream` is such a terminal and the user has not disabled colour. */
bool ctl_terminal_has_colour(FILE *stream);

/* Returns how many columns `text` takes. It is UTF-8 without control characters. */
int ctl_terminal_width(const std::string &text);

/* Prints `text` over the line that was printed before, cut to the width of the terminal. */
void ctl_terminal_redraw(FILE *terminal, const std::string &text);

/* A table of text. The first row is the heading. */
struct CtlTable {
    std::vector<bool> is_right; /* for each column: true if aligned to the right, as numbers are */
    std::vector<bool> can_shrink =
        {}; /* for each column: true if it may be cut to fit a terminal */
    std::vector<std::vector<std::string>> rows;
};

/*
 * Escapes the table's texts and prints it to standard output. With colour, the heading is bold. On
 * a terminal, columns that may shrink are cut until a row fits on a line, down to a minimum.
 */
void ctl_table_print(const CtlTable *table);

/* The progress of a clip, shown on one line of standard error if that is a rich terminal. */
struct CtlProgress {
    bool is_shown;
    gint64 began_us;  /* of g_get_monotonic_time() */
    gint64 length_ms; /* negative if it is unknown or infinite */
    std::string label;
};

/* Returns the progress of a clip that starts now. */
CtlProgress ctl_progress_begin(gint64 length_ms, const char *label);

/* Updates the line, to the current position or, if `is_over`, to the end of the clip. */
void ctl_progress_show(const CtlProgress *progress, bool is_over);

/* Ends the line. */
void ctl_progress_end(const CtlProgress *progress);
