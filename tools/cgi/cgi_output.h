#pragma once

/* Writing to files and to the web server. */

#include <cstddef>

/* Writes all bytes, however often it takes. Returns false with errno if that fails. */
bool cgi_output_write(int fd, const char *data, size_t size);
