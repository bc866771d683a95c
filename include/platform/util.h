#pragma once

/*
 * Common utilities of the platform: reading numbers, cutting text, writing files that last.
 *
 * Thread-safe, except that two writes to one path must not run at once. Null arguments are answered
 * with the failure value.
 */

#include <glib.h>
#include <stdint.h>
#include <sys/types.h>

G_BEGIN_DECLS

/*
 * Reads `text` as a decimal number into `*value`. Returns non-zero on success. The whole text must
 * be an optional sign ("+" or "-") and digits; blanks anywhere, an empty text, or a number that
 * does not fit 32 signed bits give 0 and leave `*value` alone.
 */
int util_str_to_int(const char *text, int32_t *value);

/*
 * Returns a new string (g_free()) with what stands in `text` between `prefix`, with which it must
 * begin, and `suffix`, with which it must end; it may be empty. Null when either is missing or they
 * would overlap.
 */
char *util_str_extract(const char *text, const char *prefix, const char *suffix);

/*
 * Makes `path` hold exactly the `length` bytes at `text`, in a new file with the permission bits
 * `mode` less the process's umask; a symbolic link at `path` is replaced. On return the bytes are
 * on storage. Whoever reads `path` at any moment, also after a crash or a power cut, finds the old
 * content or the new one, never a part. A crash may leave one hidden file, ".NAME.new", which the
 * next write of `path` removes. Returns non-zero on success. On failure returns 0, the old file is
 * whole, and nothing is left beside it; only when the very last step fails, the sync of the folder,
 * `path` has the new content already, and a power cut may bring the old one back.
 */
int util_write_file_synced(const char *path, const char *text, size_t length, mode_t mode);

G_END_DECLS
