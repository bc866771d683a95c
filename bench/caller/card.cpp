#include "card.h"

#include <cerrno>
#include <cstdlib>
#include <ctime>
#include <fcntl.h>
#include <sys/stat.h>
#include <unistd.h>

#include "bus_call.h"

namespace
{

/* The card stamps its events itself, so a late look changes no result. */
constexpr timespec POLL_TIME = {.tv_sec = 0, .tv_nsec = 500000};

constexpr uint64_t DEADLINE = 10000000000;

constexpr const char *START = " start ";
constexpr const char *CLOSE = " close\n";

/* Returns the text that the card has added. A card that nobody has opened yet has no file. */
std::string read_news(const Card &card)
{
    std::string text(65536, '\0');
    const int fd = open(card.events.c_str(), O_RDONLY | O_CLOEXEC);
    const ssize_t size = fd < 0 ? 0 : pread(fd, text.data(), text.size(), card.read);
    if (fd >= 0) {
        close(fd);
    }
    text.resize(size > 0 ? static_cast<size_t>(size) : 0);
    return text;
}

/* Returns the text that the card has added, as soon as `event` is in it. */
std::string wait_news(const Card *card, const char *event, const char *fault)
{
    const uint64_t deadline = bus_call_get_time() + DEADLINE;
    while (true) {
        std::string news = read_news(*card);
        if (news.find(event) != std::string::npos) {
            return news;
        }
        if (bus_call_get_time() > deadline) {
            bus_call_fail(fault, ETIMEDOUT);
        }
        nanosleep(&POLL_TIME, nullptr);
    }
}

} // namespace

Card card_open(const std::string &folder)
{
    Card card = {.events = folder + "/events", .read = 0};
    card_forget(&card);
    return card;
}

uint64_t card_wait_start(Card *card)
{
    const std::string news = wait_news(card, START, "the card does not start");
    const size_t start = news.find(START);
    const size_t line = news.rfind('\n', start);
    card->read += static_cast<off_t>(start + 1);
    return strtoull(news.c_str() + (line == std::string::npos ? 0 : line + 1), nullptr, 10);
}

void card_wait_closed(const Card *card)
{
    wait_news(card, CLOSE, "the card stays open");
}

void card_forget(Card *card)
{
    struct stat status = {};
    card->read = stat(card->events.c_str(), &status) == 0 ? status.st_size : 0;
}
