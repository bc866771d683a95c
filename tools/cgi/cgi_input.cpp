#include "cgi_input.h"

#include <algorithm>
#include <array>
#include <cerrno>
#include <poll.h>
#include <unistd.h>

#include "cgi_request.h"

namespace
{

/* How much of the body was read. A process reads one body. */
gint64 done;

ssize_t read_within(int fd, char *data, size_t size, int timeout_ms)
{
    while (true) {
        struct pollfd ready = {.fd = fd, .events = POLLIN, .revents = 0};
        const int count = poll(&ready, 1, timeout_ms);
        if (count == 0) {
            errno = ETIMEDOUT;
            return -1;
        }
        const ssize_t length = count > 0 ? read(fd, data, size) : -1;
        if (length >= 0 || errno != EINTR) {
            done += length > 0 ? length : 0;
            return length;
        }
    }
}

} // namespace

ssize_t cgi_input_read(int fd, char *data, size_t size)
{
    constexpr int TIMEOUT_MS = 30000;
    return read_within(fd, data, size, TIMEOUT_MS);
}

void cgi_input_drain(int fd, gint64 length)
{
    constexpr gint64 LIMIT = gint64{128} * 1024 * 1024;
    constexpr int PAUSE_MS = 2000;
    std::array<char, 65536> buffer;
    const gint64 end = length == CGI_LENGTH_UNKNOWN ? LIMIT : std::min(length, LIMIT);
    while (done < end && read_within(fd, buffer.data(), buffer.size(), PAUSE_MS) > 0) {
    }
}
