#pragma once

/*
 * What a playback instrument played: a folder that holds WAV files, numbered from "000.wav" in the
 * order in which they were begun, and "events", a line of text for each thing that happened to the
 * instrument: the monotonic time in nanoseconds, a word, and what belongs to it.
 *
 * A recording outlives the instrument: the same sample format goes on with the newest file, another
 * one begins the next. The headers are right after each call, so the files can be read at any time.
 * One user at a time has a folder, as one program at a time has a sound card.
 *
 * Operations that return int answer 0 or a negative errno value. No operation may be called on one
 * recording by two threads at once.
 */

#include <cstddef>
#include <cstdint>

struct RecordingFormat {
    uint32_t rate;     /* frames a second */
    uint32_t channels; /* interleaved in this order */
    uint32_t bits;     /* of one sample: 16, 24 or 32, signed, little-endian, packed */
};

struct Recording {
    int folder; /* descriptor, locked for this user */
    int events; /* descriptor */
    int wav;    /* descriptor of the newest file, -1 while there is none */
    unsigned number;
    RecordingFormat format;
    uint64_t frames; /* in the newest file */
};

/* Takes the folder, which must exist. -EBUSY: somebody else has it. Close it with
 * recording_close(). */
int recording_open(Recording *recording, const char *folder);

void recording_close(Recording *recording);

/* To be called before the first recording_append() of an opened recording. */
int recording_set_format(Recording *recording, const RecordingFormat *format);

/* Appends whole frames of the format that was set. */
int recording_append(Recording *recording, const void *frames, size_t count);

/* Adds a line to "events"; `format` is a printf format. */
int recording_add_event(Recording *recording, const char *format, ...)
    __attribute__((format(printf, 2, 3)));

/* Now, in nanoseconds of the clock that the events are stamped with. */
uint64_t recording_get_time(void);

/* How many frames take `time` nanoseconds, rounded down, and how long `frames` take, rounded up. */
uint64_t recording_time_to_frames(uint64_t time, uint32_t rate);
uint64_t recording_frames_to_time(uint64_t frames, uint32_t rate);

/* True while the folder holds a file of this name: how a test tells an instrument to misbehave. */
bool recording_has_flag(const Recording *recording, const char *name);
