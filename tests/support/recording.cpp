#include "recording.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <cstdarg>
#include <cstdio>
#include <cstring>
#include <ctime>
#include <endian.h>
#include <fcntl.h>
#include <sys/file.h>
#include <sys/stat.h>
#include <unistd.h>

namespace
{

constexpr uint64_t SECOND = 1000000000;
constexpr unsigned MAX_FILES = 1000;

/* The WAV header; no other form is written or read. All numbers are little-endian. */
struct WavHeader {
    char riff[4];
    uint32_t riff_size; /* of the rest of the file */
    char wave[4];
    char fmt[4];
    uint32_t fmt_size;
    uint16_t tag;
    uint16_t channels;
    uint32_t rate;
    uint32_t bytes_per_second;
    uint16_t bytes_per_frame;
    uint16_t bits;
    char data[4];
    uint32_t data_size;
};
static_assert(sizeof(WavHeader) == 44);

using FileName = std::array<char, 16>;

FileName file_name(unsigned number)
{
    FileName name;
    snprintf(name.data(), name.size(), "%03u.wav", number);
    return name;
}

uint32_t bytes_per_frame(const RecordingFormat *format)
{
    return format->channels * format->bits / 8;
}

bool same_format(const RecordingFormat *a, const RecordingFormat *b)
{
    return a->rate == b->rate && a->channels == b->channels && a->bits == b->bits;
}

int write_all(int fd, const void *data, size_t size, off_t offset)
{
    const char *next = static_cast<const char *>(data);
    while (size > 0) {
        const ssize_t written = pwrite(fd, next, size, offset);
        if (written < 0) {
            if (errno == EINTR)
                continue;
            return -errno;
        }
        next += written;
        offset += written;
        size -= static_cast<size_t>(written);
    }
    return 0;
}

int write_header(const Recording *recording)
{
    const RecordingFormat *format = &recording->format;
    const uint32_t frame = bytes_per_frame(format);
    /* A WAV header can describe at most 4 GiB. Above that, hours beyond any test, it stays at the
     * limit. */
    const uint64_t limit = UINT32_MAX - sizeof(WavHeader);
    const auto size = static_cast<uint32_t>(std::min(recording->frames * frame, limit));
    const WavHeader header = {
        .riff = {'R', 'I', 'F', 'F'},
        .riff_size = htole32(static_cast<uint32_t>(size + sizeof(WavHeader) - 8)),
        .wave = {'W', 'A', 'V', 'E'},
        .fmt = {'f', 'm', 't', ' '},
        .fmt_size = htole32(16),
        .tag = htole16(1),
        .channels = htole16(static_cast<uint16_t>(format->channels)),
        .rate = htole32(format->rate),
        .bytes_per_second = htole32(format->rate * frame),
        .bytes_per_frame = htole16(static_cast<uint16_t>(frame)),
        .bits = htole16(static_cast<uint16_t>(format->bits)),
        .data = {'d', 'a', 't', 'a'},
        .data_size = htole32(size),
    };
    return write_all(recording->wav, &header, sizeof header, 0);
}

int read_header(Recording *recording)
{
    WavHeader header;
    if (pread(recording->wav, &header, sizeof header, 0) != sizeof header)
        return -EINVAL;
    recording->format = {le32toh(header.rate), le16toh(header.channels), le16toh(header.bits)};
    const uint32_t frame = bytes_per_frame(&recording->format);
    recording->frames = frame > 0 ? le32toh(header.data_size) / frame : 0;
    return 0;
}

/* Opens the newest file of an earlier user, if there is one, to append to it. */
int open_newest(Recording *recording)
{
    while (recording->number < MAX_FILES &&
           recording_has_flag(recording, file_name(recording->number).data()))
        recording->number++;
    if (recording->number == 0)
        return 0;
    recording->number--;
    recording->wav =
        openat(recording->folder, file_name(recording->number).data(), O_RDWR | O_CLOEXEC);
    return recording->wav < 0 ? -errno : read_header(recording);
}

} // namespace

int recording_open(Recording *recording, const char *folder)
{
    *recording = {.folder = -1, .events = -1, .wav = -1, .number = 0, .format = {}, .frames = 0};
    recording->folder = open(folder, O_RDONLY | O_DIRECTORY | O_CLOEXEC);
    if (recording->folder < 0)
        return -errno;
    int r = 0;
    if (flock(recording->folder, LOCK_EX | LOCK_NB) < 0) {
        r = errno == EWOULDBLOCK ? -EBUSY : -errno;
    } else {
        recording->events =
            openat(recording->folder, "events", O_WRONLY | O_APPEND | O_CREAT | O_CLOEXEC, 0666);
        r = recording->events < 0 ? -errno : open_newest(recording);
    }
    if (r < 0)
        recording_close(recording);
    return r;
}

void recording_close(Recording *recording)
{
    for (int *fd : {&recording->wav, &recording->events, &recording->folder}) {
        if (*fd >= 0)
            close(*fd);
        *fd = -1;
    }
}

int recording_set_format(Recording *recording, const RecordingFormat *format)
{
    if (recording->wav >= 0) {
        if (same_format(&recording->format, format))
            return 0;
        close(recording->wav);
        recording->wav = -1;
        recording->number++;
    }
    recording->wav = openat(recording->folder, file_name(recording->number).data(),
                            O_RDWR | O_CREAT | O_EXCL | O_CLOEXEC, 0666);
    if (recording->wav < 0)
        return -errno;
    recording->format = *format;
    recording->frames = 0;
    return write_header(recording);
}

int recording_append(Recording *recording, const void *frames, size_t count)
{
    const uint64_t frame = bytes_per_frame(&recording->format);
    const auto end = static_cast<off_t>(sizeof(WavHeader) + recording->frames * frame);
    const int r = write_all(recording->wav, frames, count * frame, end);
    if (r < 0)
        return r;
    recording->frames += count;
    return write_header(recording);
}

int recording_add_event(Recording *recording, const char *format, ...)
{
    std::array<char, 512> line;
    const int stamp = snprintf(line.data(), line.size(), "%llu ",
                               static_cast<unsigned long long>(recording_get_time()));
    va_list arguments;
    va_start(arguments, format);
    /* A longer line is truncated; one byte stays free for the line feed. */
    vsnprintf(line.data() + stamp, line.size() - static_cast<size_t>(stamp) - 1, format, arguments);
    va_end(arguments);
    size_t size = strlen(line.data());
    line[size++] = '\n';
    return write(recording->events, line.data(), size) < 0 ? -errno : 0;
}

uint64_t recording_get_time(void)
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * SECOND + static_cast<uint64_t>(now.tv_nsec);
}

uint64_t recording_time_to_frames(uint64_t time, uint32_t rate)
{
    return time / SECOND * rate + time % SECOND * rate / SECOND;
}

uint64_t recording_frames_to_time(uint64_t frames, uint32_t rate)
{
    return frames / rate * SECOND + (frames % rate * SECOND + rate - 1) / rate;
}

bool recording_has_flag(const Recording *recording, const char *name)
{
    return faccessat(recording->folder, name, F_OK, 0) == 0;
}
