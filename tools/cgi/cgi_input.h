#pragma once

/* Reading the body of a request. */

#include <glib.h>
#include <sys/types.h>

/*
 * Reads up to `size` bytes, and waits up to 30 s for the first of them. Returns how many bytes were
 * read, 0 at the end of the body, or -1 with errno; ETIMEDOUT if nothing came in time.
 */
ssize_t cgi_input_read(int fd, char *data, size_t size);

/*
 * Reads and drops what cgi_input_read() has left of a body of `length` bytes; CGI_LENGTH_UNKNOWN
 * means up to its end. fcgiwrap discards the answer of a program that exits before it has read the
 * whole body. Gives up after a pause of 2 s, or if the rest is very long.
 */
void cgi_input_drain(int fd, gint64 length);
