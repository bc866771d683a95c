#pragma once

/* A folder of the test's own. */

#include <string>

/* Makes an empty folder and works in it; at the end it is removed with its files. */
class ScratchFolder
{
  public:
    ScratchFolder();
    ~ScratchFolder();
    ScratchFolder(const ScratchFolder &) = delete;
    ScratchFolder &operator=(const ScratchFolder &) = delete;

    /* Makes the file `name` hold `text`, in place: an existing file keeps its inode. */
    static void write(const std::string &name, const std::string &text);

  private:
    std::string path;
    std::string previous;
};
