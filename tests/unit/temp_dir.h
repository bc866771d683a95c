#pragma once

/* Temporary folders and files for a test. */

#include <filesystem>
#include <fstream>
#include <glib.h>
#include <gtest/gtest.h>
#include <iterator>
#include <string>
#include <string_view>
#include <sys/socket.h>
#include <sys/un.h>
#include <system_error>
#include <unistd.h>

/* Writes `content` to the file `path` in place: an existing file keeps its inode. */
inline void write_file(const std::string &path, std::string_view content)
{
    std::ofstream file(path, std::ios::binary | std::ios::trunc);
    file << content;
    file.close();
    ASSERT_TRUE(file) << path;
}

/* Returns the content of the file `path`, or "" if there is no such file. */
inline std::string read_file(const std::string &path)
{
    std::ifstream file(path, std::ios::binary);
    return {std::istreambuf_iterator<char>(file), {}};
}

/* Returns the number of descriptors that this process has open. */
inline size_t count_open_files()
{
    std::error_code error;
    const std::filesystem::directory_iterator entries("/proc/self/fd", error);
    return static_cast<size_t>(std::distance(begin(entries), end(entries)));
}

/* A new empty folder, removed with its content at the end of its scope. */
class TempDir
{
  public:
    TempDir()
    {
        g_autofree char *name = g_dir_make_tmp("sonobrik-test-XXXXXX", nullptr);
        EXPECT_NE(name, nullptr);
        root = name ? name : "";
    }

    ~TempDir()
    {
        std::error_code error;
        std::filesystem::remove_all(root, error);
    }

    TempDir(const TempDir &) = delete;
    TempDir &operator=(const TempDir &) = delete;

    /* Returns the path of an entry, whether it exists or not. */
    std::string path(const std::string &name) const
    {
        return root + "/" + name;
    }

    /* Makes a file and returns its path. */
    std::string file(const std::string &name, const std::string &content = "") const
    {
        write_file(path(name), content);
        return path(name);
    }

    /* Makes a folder and returns its path. */
    std::string folder(const std::string &name) const
    {
        std::error_code error;
        EXPECT_TRUE(std::filesystem::create_directory(path(name), error)) << error.message();
        return path(name);
    }

    /* Makes a symbolic link and returns its path. */
    std::string link(const std::string &name, const std::string &target) const
    {
        std::error_code error;
        std::filesystem::create_symlink(target, path(name), error);
        EXPECT_FALSE(error) << error.message();
        return path(name);
    }

    /* Makes a socket that nothing listens on and returns its path. */
    std::string socket(const std::string &name) const
    {
        sockaddr_un address = {};
        address.sun_family = AF_UNIX;
        g_strlcpy(address.sun_path, path(name).c_str(), sizeof(address.sun_path));
        const int fd = ::socket(AF_UNIX, SOCK_STREAM | SOCK_CLOEXEC, 0);
        EXPECT_EQ(bind(fd, reinterpret_cast<sockaddr *>(&address), sizeof(address)), 0);
        close(fd);
        return path(name);
    }

    std::string root;
};

/* A temporary folder that is the working directory while the object lives. */
class WorkingTempDir : public TempDir
{
  public:
    WorkingTempDir() : previous(std::filesystem::current_path())
    {
        std::filesystem::current_path(root);
    }

    ~WorkingTempDir()
    {
        std::filesystem::current_path(previous);
    }

  private:
    std::filesystem::path previous;
};
