#pragma once

/*
 * Lists, tests, opens, removes and measures files.
 *
 * Every function returns its failure value for a null argument. Called on the main thread.
 */

#include <glib.h>

/*
 * Returns a new list of the items, in their order. Creates all elements at once: GLib before 2.76
 * never frees the memory of list elements, and elements that lie between other allocations would
 * keep the memory around them from being returned to the system.
 */
GSList *file_utils_make_list(GPtrArray *items);

/*
 * Lists the files whose path matches `path_pattern`. Only the last component may contain wildcards:
 * "*" matches any run of characters, "?" any one character. Returns a list of new strings in the
 * order in which the directory yields its entries, or null if nothing matches or the directory is
 * missing. Free the list with file_utils_free_list().
 */
GSList *file_utils_get_files_from_wildcard(const char *path_pattern);

/* Frees a list from file_utils_get_files_from_wildcard() and sets the caller's variable to null. */
void file_utils_free_list(GSList **list);

/* Returns true if `path` exists, as a file system object of any kind. */
bool file_utils_file_exist(const char *path);

/*
 * Opens `path` if it is a regular file or a link to one. Never blocks: the type is checked on the
 * open file, so a path that changes from file to FIFO in between cannot hold the caller.
 *
 * `access_mode` is O_RDONLY, or O_PATH for a descriptor that only names the file and needs no
 * permission to read it. Returns a descriptor, to be closed by the caller, or -1 with errno set:
 * EISDIR for a directory, ENXIO for any other kind of file (FIFO, socket, device).
 */
int file_utils_open_regular(const char *path, int access_mode);

/*
 * Opens for reading the regular file that `fd` names, and closes `fd`, which comes from
 * file_utils_open_regular() with O_PATH. Returns a descriptor, to be closed by the caller, or -1
 * with errno set: EACCES if the file may not be read, EAGAIN if another process has a write lease
 * on it (see F_SETLEASE in fcntl(2)).
 *
 * Never blocks, unlike opening a leased file without O_NONBLOCK, which waits for up to
 * /proc/sys/fs/lease-break-time. Nobody can take a write lease while the returned descriptor is
 * open, so until then the file can be opened again through /proc/self/fd without blocking.
 */
int file_utils_reopen_for_reading(int fd);

/*
 * Opening this path fails with ENOTDIR. Give it to GStreamer in place of a file that cannot be
 * read: the file itself could be made readable, and leased, before GStreamer opens it.
 */
constexpr char FILE_UTILS_UNREADABLE_PATH[] = "/proc/self/comm/none";

/*
 * Returns true if the process may open `count` more file descriptors, otherwise false with errno
 * set.
 */
bool file_utils_can_open(unsigned count);

/*
 * Removes `path`. Returns true if the file no longer exists, including when it never existed or
 * `path` is null.
 */
bool file_utils_remove_file(const char *path);

/* Returns the file's size in kibibytes, rounded to the nearest (halves up), or -1 on failure. */
gint32 file_utils_get_file_size_kb(const char *path);
