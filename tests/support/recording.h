#pragma once

/*
 * A folder with what a virtual sound card or sink has played: WAV files, numbered from "000.wav" in
 * the order of their creation, and the text file "events". Each line of "events" has the monotonic
 * time in nanoseconds, the name of the event, and its fields.
 *
 * A recording can be closed and opened again. Frames of the same format are appended to the newest
 * file, those of another format go to a new one. The WAV headers are updated by each call, so the
 * files can be read at any time. A folder has one user at a time, like a sound card.
 *
 * Operations that return int return 0 or a negative errno value. Two threads must not use the same
 * recording at the same time.
 */

#include <cstddef>
#include <cstdint>

struct RecordingFormat {
    uint32_t rate;     /* frames per second */
    uint32_t channels; /* interleaved */
    uint32_t bits;     /* per sample: 16, 24 or 32, signed, little-endian, packed */
};

struct Recording {
    int folder; /* descriptor; its lock keeps other users out */
    int events; /* descriptor */
    int wav;    /* descriptor of the newest file, -1 while there is none */
    unsigned number;
    RecordingFormat format;
    uint64_t frames; /* in the newest file */
};

/*
 * Opens the recording in `folder`, which must exist. Returns -EBUSY if it has another user. Close
 * it with recording_close().
 */
int recording_open(Recording *recording, const char *folder);

void recording_close(Recording *recording);

/* Sets the format. Must be called between recording_open() and the first recording_append(). */
int recording_set_format(Recording *recording, const RecordingFormat *format);

/* Appends `count` frames in the format of recording_set_format(). */
int recording_append(Recording *recording, const void *frames, size_t count);

/* Adds a line to "events"; `format` is a printf format. */
int recording_add_event(Recording *recording, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

/* Returns the current time in nanoseconds, on the clock of the events. */
uint64_t recording_get_time(void);

/* Convert between nanoseconds and frames; the first rounds down, the second up. */
uint64_t recording_time_to_frames(uint64_t time, uint32_t rate);
uint64_t recording_frames_to_time(uint64_t frames, uint32_t rate);

/* Returns true if the folder has a file of this name. Tests create such files to cause failures. */
bool recording_has_flag(const Recording *recording, const char *name);
