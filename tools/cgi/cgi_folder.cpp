#include "cgi_folder.h"

#include <cerrno>
#include <cstring>
#include <fcntl.h>
#include <glib.h>
#include <linux/openat2.h>
#include <sys/stat.h>
#include <sys/syscall.h>
#include <unistd.h>
#include <utility>

#include "client_clips.h"

namespace
{

/* Opens `path`, which is relative to `folder`. Fails with EXDEV if it leads out of the folder. */
int open_beneath(int folder, const char *path, int flags)
{
    struct open_how how = {};
    how.flags = static_cast<unsigned int>(flags);
    how.resolve = RESOLVE_BENEATH | RESOLVE_NO_MAGICLINKS;
    return static_cast<int>(syscall(SYS_openat2, folder, path, &how, sizeof how));
}

} // namespace

CgiDescriptor::CgiDescriptor(CgiDescriptor &&other) noexcept : fd(std::exchange(other.fd, -1)) {}

CgiDescriptor &CgiDescriptor::operator=(CgiDescriptor &&other) noexcept
{
    std::swap(fd, other.fd);
    return *this;
}

CgiDescriptor::~CgiDescriptor()
{
    const int reason = errno;
    if (fd >= 0) {
        close(fd);
    }
    errno = reason;
}

bool cgi_folder_is_writable()
{
    return access(CLIENT_CLIP_FOLDER, W_OK | X_OK) == 0;
}

CgiDescriptor cgi_folder_open()
{
    return CgiDescriptor(open(CLIENT_CLIP_FOLDER, O_RDONLY | O_DIRECTORY | O_CLOEXEC));
}

CgiDescriptor cgi_folder_open_file(const std::string &location)
{
    const char *name = client_clips_relative(location.c_str());
    if (name == location.c_str()) {
        errno = EXDEV;
        return {};
    }
    const CgiDescriptor folder = cgi_folder_open();
    /* Without O_NONBLOCK, opening a FIFO waits until another process writes to it. */
    CgiDescriptor file(folder.is_open() ? open_beneath(folder.get(), name,
                                                       O_RDONLY | O_CLOEXEC | O_NONBLOCK | O_NOCTTY)
                                        : -1);
    struct stat status = {};
    if (file.is_open() && (fstat(file.get(), &status) != 0 || !S_ISREG(status.st_mode))) {
        errno = EINVAL;
        return {};
    }
    return file;
}

CgiPlace cgi_folder_find_place(const std::string &location)
{
    CgiPlace place;
    const std::string name = client_clips_relative(location.c_str());
    const size_t slash = name.rfind('/');
    const std::string last = name.substr(slash == std::string::npos ? 0 : slash + 1);
    if (name == location || last.empty() || last == "." || last == "..") {
        errno = EXDEV;
        return place;
    }
    place.name = last;
    place.folder = cgi_folder_open();
    if (place.folder.is_open() && slash != std::string::npos) {
        place.folder = CgiDescriptor(open_beneath(place.folder.get(), name.substr(0, slash).c_str(),
                                                  O_RDONLY | O_DIRECTORY | O_CLOEXEC));
    }
    return place;
}
