#pragma once

/* For the unit tests only: takes `path`, which is borrowed, for the system log's socket. */
void log_redirect_set_socket(const char *path);
