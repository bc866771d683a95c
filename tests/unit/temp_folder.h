#pragma once

/* A folder of a test's own, which is the working directory while the test runs. */

#include <cstdlib>
#include <filesystem>
#include <fstream>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <string_view>

class TempFolder
{
  public:
    TempFolder() : previous(std::filesystem::current_path())
    {
        std::string name = (std::filesystem::temp_directory_path() / "unit.XXXXXX").string();
        EXPECT_NE(mkdtemp(name.data()), nullptr);
        path = name;
        std::filesystem::current_path(path);
    }

    ~TempFolder()
    {
        std::filesystem::current_path(previous);
        std::filesystem::remove_all(path);
    }

    TempFolder(const TempFolder &) = delete;
    TempFolder &operator=(const TempFolder &) = delete;

    std::string path;

  private:
    std::filesystem::path previous;
};

/* Makes the file `path` hold `content`; it is written in place. */
inline void write_file(const std::string &path, std::string_view content)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    ASSERT_TRUE(file) << path;
}

/* The content of the file `path`; empty when there is none. */
inline std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}
