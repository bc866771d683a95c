#pragma once

/* What a terminal shows: colour, columns, and how far a clip has come. */

#include <cstdio>
#include <glib.h>
#include <string>
#include <vector>

/* Whether `stream` is a terminal that understands control sequences. */
bool ctl_terminal_is_rich(FILE *stream);

/* Whether it is one, and its user wants emphasis too. */
bool ctl_terminal_has_colour(FILE *stream);

/* How many columns `text`, UTF-8 without control characters, takes. */
int ctl_terminal_width(const std::string &text);

/* Columns of text, the first row their heads. */
struct CtlTable {
    std::vector<bool> is_right; /* of each column: numbers stand on its right */
    std::vector<std::vector<std::string>> rows;
};

/* Escapes all texts and writes them to standard output, with emphasis where that is wanted. */
void ctl_table_print(const CtlTable *table);

/* How far a clip has come, on a line of standard error; nothing where that is no rich terminal. */
struct CtlProgress {
    bool is_shown;
    gint64 began_us;  /* of g_get_monotonic_time() */
    gint64 length_ms; /* negative if it is not known, or has no end */
    std::string label;
};

/* Begins now. */
CtlProgress ctl_progress_begin(gint64 length_ms, const char *label);

/* Shows where it is now; at its end if `is_over`. */
void ctl_progress_show(const CtlProgress *progress, bool is_over);

/* Leaves the line, if it was begun. */
void ctl_progress_end(const CtlProgress *progress);
