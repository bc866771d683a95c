#include "cgi_output.h"

#include <cerrno>
#include <unistd.h>

bool cgi_output_write(int fd, const char *data, size_t size)
{
    while (size > 0) {
        const ssize_t written = write(fd, data, size);
        if (written < 0 && errno != EINTR) {
            return false;
        }
        const size_t done = written > 0 ? static_cast<size_t>(written) : 0;
        data += done;
        size -= done;
    }
    return true;
}
