#pragma once

/*
 * The files of the clip records: their names and the range of their indexes. The index of a record
 * is its number, from 0 up to a bound that a device parameter sets. Called on the main thread.
 */

#include <glib.h>

/*
 * Stores the highest valid index in `*max_index`; if it is negative, no index is valid. Returns
 * false with a warning if the parameter cannot be read. The value is cached after the first
 * successful read, so a changed parameter takes effect when the daemon restarts.
 */
bool sonobrik_group_conf_get_max_group_index(gint32 *max_index);

/*
 * Returns true if `index` is from 0 to the highest valid index; false, with a warning, if that is
 * unknown.
 */
bool sonobrik_group_conf_valid_group_index(gint32 index);

/*
 * Returns the path of the file of the record with this index, whether it exists or not, as a new
 * string; free it with g_free(). Returns null with a warning for an invalid index.
 */
char *sonobrik_group_conf_get_file_path(gint32 index);

/*
 * Returns the index in the path of a record's file, or -1 with a warning. The path must be the one
 * that is built from the index: "M007.json" and "M+7.json" have no index. The index is not compared
 * with the bound.
 */
gint32 sonobrik_group_conf_get_param_index(const char *path);

/*
 * Returns a number n such that the files of the indexes from 0 to n - 1 exist. It is the highest
 * such number, unless one of the files is a symbolic link, which may be broken, or the file system
 * does not list the types of files. One reading of the folder takes less time than a test of each
 * file.
 */
gint32 sonobrik_group_conf_count_files_without_gap();

/*
 * Returns the paths of all record files, in the order of the directory, not of their indexes.
 * Returns null if there are none; free the list with sonobrik_group_conf_free_param_file_list().
 */
GSList *sonobrik_group_conf_get_param_file_list();

/* Frees a list and sets the caller's variable to null. */
void sonobrik_group_conf_free_param_file_list(GSList **list);
