#pragma once

/* Access to files in the clip folder. No path leads out of it, not even through symbolic links. */

#include <string>

/* A file descriptor that is closed with its owner. */
class CgiDescriptor
{
  public:
    CgiDescriptor() = default;
    explicit CgiDescriptor(int fd) : fd(fd) {}
    CgiDescriptor(CgiDescriptor &&other) noexcept;
    CgiDescriptor &operator=(CgiDescriptor &&other) noexcept;
    CgiDescriptor(const CgiDescriptor &) = delete;
    CgiDescriptor &operator=(const CgiDescriptor &) = delete;
    ~CgiDescriptor();

    int get() const
    {
        return fd;
    }
    bool is_open() const
    {
        return fd >= 0;
    }

  private:
    int fd = -1;
};

/* The folder of a file, and the file's name in it. */
struct CgiPlace {
    CgiDescriptor folder;
    std::string name;
};

/* Returns true if the process may create files in the clip folder. */
bool cgi_folder_is_writable();

/* Opens the clip folder itself. On failure the descriptor is not open, and errno is set. */
CgiDescriptor cgi_folder_open();

/*
 * Opens the regular file at `location` for reading. Fails with EXDEV if the location is not in the
 * clip folder, and with EINVAL if the file is not a regular one.
 */
CgiDescriptor cgi_folder_open_file(const std::string &location);

/* Opens the folder of the file at `location`, with the same errors. The file need not exist. The
 * last component of the location is not followed if it is a symbolic link. */
CgiPlace cgi_folder_find_place(const std::string &location);
