#pragma once

/* For the unit tests only: uses `path` as the socket of the system log. Keeps the pointer. */
void log_redirect_set_socket(const char *path);

/* For the unit tests only: looks for the journal at `path`. Keeps the pointer. */
void log_redirect_set_journal(const char *path);
