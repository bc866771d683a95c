#pragma once

/* The device's parameters and the platform's write of a file, as a test wants them. */

#include <optional>
#include <string>
#include <vector>

struct FakePlatform {
    /* The value of every parameter; none: no parameter can be read. */
    std::optional<std::string> parameter;
    std::vector<std::string> parameters_read; /* names */

    bool write_fails = false;           /* and leaves the file as it is */
    std::vector<std::string> written;   /* paths */
    std::vector<unsigned> written_mode; /* of each */
};

extern FakePlatform fake_platform;
