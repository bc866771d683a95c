#pragma once

/* Fakes of the platform's parameters and of its synced write. */

#include <optional>
#include <string>
#include <vector>

struct FakePlatform {
    /* The value of every parameter; if it is not set, no parameter can be read. */
    std::optional<std::string> parameter;
    std::vector<std::string> parameters_read; /* names */

    bool write_fails = false;           /* a failed write leaves the old file */
    std::vector<std::string> written;   /* paths */
    std::vector<unsigned> written_mode; /* of each */
};

extern FakePlatform fake_platform;
