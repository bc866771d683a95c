#pragma once

/*
 * The file that a clip is read from. Opening a FIFO blocks until it has a writer, and opening a
 * file on which another process has a write lease blocks for up to 45 s. A path can become a FIFO,
 * and a file can be leased, after it was checked.
 */

#include <gst/gst.h>

/*
 * Returns false if `uri` names a folder, FIFO, socket or device. Returns true for a file that is
 * missing or cannot be opened: GStreamer reports the reason when it plays the file.
 */
bool clip_source_is_playable(const char *uri);

/*
 * Makes a "filesrc" read the regular file that its path names now, whatever becomes of the path. If
 * it does not name one, or the file is leased or may not be read, opening the source fails at once.
 * Ignores other elements. Call it from "source-setup", before the source opens its file. Called on
 * any thread.
 */
void clip_source_pin(GstElement *source);

/*
 * Returns the text of an error that `element` reports. If it is a pinned source, the text names the
 * path that the source was given. Free it with g_free().
 */
char *clip_source_describe_error(GstObject *element, const char *text);
