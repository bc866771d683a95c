#include "scratch_folder.h"

#include <filesystem>
#include <fstream>
#include <glib.h>
#include <unistd.h>

ScratchFolder::ScratchFolder()
{
    g_autofree char *before = g_get_current_dir();
    g_autofree char *made = g_dir_make_tmp("sonobrik-test-XXXXXX", nullptr);
    previous = before;
    path = made;
    std::filesystem::current_path(path);
}

ScratchFolder::~ScratchFolder()
{
    std::filesystem::current_path(previous);
    std::filesystem::remove_all(path);
}

void ScratchFolder::write(const std::string &name, const std::string &text)
{
    std::ofstream(name, std::ios::binary | std::ios::trunc) << text;
}
