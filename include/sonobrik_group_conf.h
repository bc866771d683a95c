#pragma once

/*
 * The clip records' files: their names, and the numbers that they may have. A record's number is
 * its index; indexes go from 0 up to a bound that a device parameter sets. Called on the main
 * thread.
 */

#include <glib.h>

/*
 * Stores the highest valid index in `*max_index`; below zero, no index is valid. Returns false,
 * with a warning, while the parameter cannot be read. Once read it is kept: a later change of the
 * parameter takes effect at the next start of the daemon.
 */
bool sonobrik_group_conf_get_max_group_index(gint32 *max_index);

/* Is `index` from 0 to the highest valid one? False, with a warning, while that is not known. */
bool sonobrik_group_conf_valid_group_index(gint32 index);

/*
 * Returns the path of the file of the record with this index, whether there is one or not, as a new
 * string to be freed with g_free(); null, with a warning, for an invalid index.
 */
char *sonobrik_group_conf_get_file_path(gint32 index);

/*
 * Returns the index that the path of a record's file holds, or -1 with a warning. The bound is not
 * looked at.
 */
gint32 sonobrik_group_conf_get_param_index(const char *path);

/*
 * Lists the paths of all record files, in the order in which the directory yields them, which is
 * not that of their indexes. Null if there are none; free it with
 * sonobrik_group_conf_free_param_file_list().
 */
GSList *sonobrik_group_conf_get_param_file_list();

/* Frees a list and sets the caller's variable to null. */
void sonobrik_group_conf_free_param_file_list(GSList **list);
