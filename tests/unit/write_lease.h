#pragma once

/* A write lease on a file, as another process could have it. */

#include <cerrno>
#include <csignal>
#include <fcntl.h>
#include <string>
#include <unistd.h>

/*
 * Takes the lease, and keeps it until it is released or destroyed: the kernel asks to give it up
 * with SIGURG, which is ignored by default. It treats a lease of the own process like those of
 * others.
 */
class WriteLease
{
  public:
    explicit WriteLease(const std::string &path)
        : fd(open(path.c_str(), O_RDWR | O_CLOEXEC)),
          error(fcntl(fd, F_SETSIG, SIGURG) == 0 && fcntl(fd, F_SETLEASE, F_WRLCK) == 0 ? 0 : errno)
    {
    }

    ~WriteLease()
    {
        release();
    }

    WriteLease(const WriteLease &) = delete;
    WriteLease &operator=(const WriteLease &) = delete;

    /* Returns 0, or the reason why the lease could not be taken: EAGAIN if the file is open. */
    int reason() const
    {
        return error;
    }

    void release()
    {
        if (fd != -1) {
            close(fd);
            fd = -1;
        }
    }

  private:
    int fd;
    int error;
};
