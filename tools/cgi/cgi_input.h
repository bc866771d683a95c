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
 * Reads and drops the rest of a body of `length` bytes, of which cgi_input_read() has read a part.
 * Some servers discard the answer of a program that does not read the whole body. Gives up after a
 * pause of 2 s, or if the rest is very long.
 */
void cgi_input_drain(int fd, gint64 length);
