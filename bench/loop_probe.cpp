/*
 * Measures the longest time that the daemon's main loop is busy, and the longest run of the
 * discoverer. The benchmark preloads this library into the daemon, so the daemon itself contains
 * nothing of it.
 *
 * It takes the time from the moment that the loop's poll returns until the loop polls again. That
 * covers all callbacks that were ready, so no single callback took longer. The results, in ns, are
 * in the file that LOOP_PROBE_FILE names, as two binary numbers of 64 bits.
 */

#include <algorithm>
#include <cstdint>
#include <cstdlib>
#include <ctime>
#include <dlfcn.h>
#include <fcntl.h>
#include <gst/pbutils/pbutils.h>
#include <sys/mman.h>
#include <unistd.h>

namespace
{

struct Longest {
    uint64_t busy;
    uint64_t discoverer;
};

Longest *longest; /* null in a program that is not measured */
uint64_t woken;   /* 0 before the first poll */

uint64_t get_time()
{
    timespec now = {};
    clock_gettime(CLOCK_MONOTONIC, &now);
    return static_cast<uint64_t>(now.tv_sec) * 1000000000 + static_cast<uint64_t>(now.tv_nsec);
}

gint timed_poll(GPollFD *fds, guint count, gint timeout)
{
    if (woken != 0) {
        longest->busy = std::max(longest->busy, get_time() - woken);
    }
    const gint r = g_poll(fds, count, timeout);
    woken = get_time();
    return r;
}

/* Only the main thread runs the default context. The discoverer runs one of its own. */
__attribute__((constructor)) void set_up()
{
    const char *path = getenv("LOOP_PROBE_FILE");
    const int fd = path ? open(path, O_RDWR | O_CLOEXEC) : -1;
    if (fd < 0) {
        return;
    }
    void *memory = mmap(nullptr, sizeof *longest, PROT_READ | PROT_WRITE, MAP_SHARED, fd, 0);
    close(fd);
    if (memory != MAP_FAILED) {
        longest = static_cast<Longest *>(memory);
        g_main_context_set_poll_func(g_main_context_default(), timed_poll);
    }
}

} // namespace

/* Only the main thread runs the discoverer. */
GstDiscovererInfo *gst_discoverer_discover_uri(GstDiscoverer *discoverer, const gchar *uri,
                                               GError **error)
{
    static auto *const next = reinterpret_cast<decltype(&gst_discoverer_discover_uri)>(
        dlsym(RTLD_NEXT, "gst_discoverer_discover_uri"));
    const uint64_t begin = get_time();
    GstDiscovererInfo *info = next(discoverer, uri, error);
    if (longest) {
        longest->discoverer = std::max(longest->discoverer, get_time() - begin);
    }
    return info;
}
