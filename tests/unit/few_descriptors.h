#pragma once

/* A process that has used up its descriptors. */

#include <fcntl.h>
#include <gtest/gtest.h>
#include <sys/resource.h>
#include <unistd.h>
#include <vector>

/* While the object lives, the process may open no more than `free_count` descriptors. */
class FewDescriptors
{
  public:
    explicit FewDescriptors(unsigned free_count)
    {
        EXPECT_EQ(getrlimit(RLIMIT_NOFILE, &previous), 0);
        /* The limit is for the number of a descriptor, so the gaps below it are filled. */
        do {
            fillers.push_back(fcntl(STDERR_FILENO, F_DUPFD_CLOEXEC, 0));
        } while (fillers.back() != -1 && fillers.back() < LAST);
        EXPECT_EQ(fillers.back(), LAST);
        rlimit few = previous;
        few.rlim_cur = LAST + 1 + free_count;
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &few), 0);
    }

    ~FewDescriptors()
    {
        EXPECT_EQ(setrlimit(RLIMIT_NOFILE, &previous), 0);
        for (const int filler : fillers) {
            close(filler);
        }
    }

    FewDescriptors(const FewDescriptors &) = delete;
    FewDescriptors &operator=(const FewDescriptors &) = delete;

  private:
    static constexpr int LAST = 99; /* no test has as many open */

    rlimit previous = {};
    std::vector<int> fillers;
};
