#pragma once

/*
 * Common utilities of the platform: parse numbers, cut text, write files safely.
 *
 * All operations may run on any thread. Two writes to the same path must not run at the same time.
 * Null arguments are a failure.
 */

#include <glib.h>
#include <stdint.h>
#include <sys/types.h>

G_BEGIN_DECLS

/*
 * Reads `text` as a decimal number and stores it in `*value`. The whole text must consist of an
 * optional "+" or "-" and digits, without blanks, and the number must fit in 32 signed bits.
 * Returns non-zero on success. On failure returns 0 and does not change `*value`.
 */
int util_str_to_int(const char *text, int32_t *value);

/*
 * Returns the part of `text` between `prefix` and `suffix`, as a new string that the caller frees
 * with g_free(). `text` must begin with `prefix` and end with `suffix`, and the two must not
 * overlap; otherwise returns null. The result may be empty.
 */
char *util_str_extract(const char *text, const char *prefix, const char *suffix);

/*
 * Replaces the file `path` with a new file that contains the `length` bytes at `text`. The file
 * gets the permission bits `mode`, whatever the process's umask. If `path` is a symbolic link, the
 * link is replaced.
 *
 * Waits until the bytes are on storage. At any moment, even after a crash or a power cut, a reader
 * of `path` gets either the whole old content or the whole new content. A crash may leave one
 * hidden file, ".NAME.new"; the next write to `path` removes it.
 *
 * Returns non-zero on success. On failure returns 0; the old file is unchanged and no new file is
 * left beside it. There is one exception: if only the last step fails, which syncs the folder,
 * `path` already has the new content, but a power cut may bring the old content back.
 */
int util_write_file_synced(const char *path, const char *text, size_t length, mode_t mode);

G_END_DECLS
