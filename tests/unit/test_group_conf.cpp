#include "sonobrik_group_conf.h"

#include <string>
#include <vector>

#include "fake_platform.h"
#include "file_utils.h"
#include "group_conf_directory.h"
#include "log_test.h"

namespace
{

using Names = std::vector<std::string>;

constexpr const char *UNKNOWN = "sonobrik_group_conf_get_max_group_index can not determine the "
                                "value of 'root.SonoBrik.MaxGroups'";

std::string listed_pattern;
GSList *listed; /* the result of the fake listing */
GSList **freed;

class GroupConf : public LogTest
{
  protected:
    GroupConf()
    {
        reset();
        fake_platform = {};
        fake_platform.parameter = "20";
        listed_pattern.clear();
        listed = nullptr;
        freed = nullptr;
    }

    /* Uses the daemon's own folder, since these tests touch no file. */
    static void reset()
    {
        sonobrik_group_conf_reset(SONOBRIK_GROUP_DIRECTORY);
    }

    /* Returns the highest valid index, or -100 if it is unknown. */
    static gint32 max_index()
    {
        gint32 index = -100;
        return sonobrik_group_conf_get_max_group_index(&index) ? index : -100;
    }

    static std::string file_path(gint32 index)
    {
        g_autofree char *path = sonobrik_group_conf_get_file_path(index);
        return path ? path : "null";
    }
};

} // namespace

GSList *file_utils_get_files_from_wildcard(const char *path_pattern)
{
    listed_pattern = path_pattern;
    return listed;
}

void file_utils_free_list(GSList **list)
{
    freed = list;
    *list = nullptr;
}

TEST_F(GroupConf, HighestIndexIsOneBelowTheParameter)
{
    EXPECT_EQ(max_index(), 19);
    EXPECT_EQ(fake_platform.parameters_read, Names{"root.SonoBrik.MaxGroups"});
    expect_no_log();
}

TEST_F(GroupConf, IndexesFromZeroToTheHighestAreValid)
{
    EXPECT_TRUE(sonobrik_group_conf_valid_group_index(0));
    EXPECT_TRUE(sonobrik_group_conf_valid_group_index(19));
    EXPECT_FALSE(sonobrik_group_conf_valid_group_index(20));
    EXPECT_FALSE(sonobrik_group_conf_valid_group_index(-1));
    EXPECT_FALSE(sonobrik_group_conf_valid_group_index(G_MININT32));
    EXPECT_FALSE(sonobrik_group_conf_valid_group_index(G_MAXINT32));
    expect_no_log();
}

TEST_F(GroupConf, ParameterHasNoUpperLimit)
{
    fake_platform.parameter = "2147483647";
    EXPECT_TRUE(sonobrik_group_conf_valid_group_index(G_MAXINT32 - 1));
    EXPECT_FALSE(sonobrik_group_conf_valid_group_index(G_MAXINT32));
}

TEST_F(GroupConf, BoundIsUnknownWhileTheParameterIsMissing)
{
    fake_platform.parameter.reset();
    EXPECT_EQ(max_index(), -100);
    expect_log(G_LOG_LEVEL_WARNING, UNKNOWN);
    expect_no_log();
}

TEST_F(GroupConf, BoundIsUnknownWhileTheParameterIsNotANumber)
{
    for (const char *text : {"twenty", "", "20 groups", "4294967296"}) {
        fake_platform.parameter = text;
        EXPECT_EQ(max_index(), -100) << text;
        expect_log(G_LOG_LEVEL_WARNING, UNKNOWN);
    }
    expect_no_log();
}

TEST_F(GroupConf, NoIndexIsValidWhileTheBoundIsUnknown)
{
    fake_platform.parameter.reset();
    EXPECT_FALSE(sonobrik_group_conf_valid_group_index(0));
    expect_log(G_LOG_LEVEL_WARNING, UNKNOWN);
    expect_no_log();
}

TEST_F(GroupConf, ParameterThatAppearsTakesEffectAtTheNextCall)
{
    fake_platform.parameter.reset();
    EXPECT_FALSE(sonobrik_group_conf_valid_group_index(0));
    expect_log(G_LOG_LEVEL_WARNING, UNKNOWN);
    fake_platform.parameter = "1";
    EXPECT_TRUE(sonobrik_group_conf_valid_group_index(0));
    expect_no_log();
}

TEST_F(GroupConf, ParameterIsReadOnce)
{
    EXPECT_EQ(max_index(), 19);
    fake_platform.parameter = "3";
    EXPECT_EQ(max_index(), 19);
    EXPECT_TRUE(sonobrik_group_conf_valid_group_index(19));
    EXPECT_EQ(file_path(19), "/etc/dynamic/sonobrik/clip_data/M19.json");
    EXPECT_EQ(fake_platform.parameters_read.size(), 1U);
}

TEST_F(GroupConf, CheckingAnIndexCachesTheBoundToo)
{
    EXPECT_TRUE(sonobrik_group_conf_valid_group_index(19));
    fake_platform.parameter = "3";
    EXPECT_EQ(max_index(), 19);
}

TEST_F(GroupConf, ParameterOfZeroIsReadAtEachCall)
{
    fake_platform.parameter = "0";
    EXPECT_EQ(max_index(), -1);
    EXPECT_FALSE(sonobrik_group_conf_valid_group_index(0));
    EXPECT_FALSE(sonobrik_group_conf_valid_group_index(-1));
    EXPECT_EQ(fake_platform.parameters_read.size(), 3U);
    fake_platform.parameter = "1";
    EXPECT_TRUE(sonobrik_group_conf_valid_group_index(0));
    expect_no_log();
}

TEST_F(GroupConf, NoIndexIsValidWithANegativeParameter)
{
    for (const char *text : {"-1", "-5", "-2147483648"}) {
        reset();
        fake_platform.parameter = text;
        EXPECT_FALSE(sonobrik_group_conf_valid_group_index(0)) << text;
        EXPECT_FALSE(sonobrik_group_conf_valid_group_index(-1)) << text;
        EXPECT_FALSE(sonobrik_group_conf_valid_group_index(-6)) << text;
        EXPECT_FALSE(sonobrik_group_conf_valid_group_index(G_MAXINT32)) << text;
    }
    expect_no_log();
}

TEST_F(GroupConf, NullOutputFails)
{
    EXPECT_FALSE(sonobrik_group_conf_get_max_group_index(nullptr));
    expect_log(G_LOG_LEVEL_WARNING, UNKNOWN);
    EXPECT_EQ(fake_platform.parameters_read, Names{});
}

TEST_F(GroupConf, NullOutputFailsEvenIfTheBoundIsKnown)
{
    EXPECT_EQ(max_index(), 19);
    EXPECT_FALSE(sonobrik_group_conf_get_max_group_index(nullptr));
    expect_log(G_LOG_LEVEL_WARNING, UNKNOWN);
}

TEST_F(GroupConf, FilePathContainsTheIndex)
{
    EXPECT_EQ(file_path(0), "/etc/dynamic/sonobrik/clip_data/M0.json");
    EXPECT_EQ(file_path(3), "/etc/dynamic/sonobrik/clip_data/M3.json");
    EXPECT_EQ(file_path(19), "/etc/dynamic/sonobrik/clip_data/M19.json");
    expect_no_log();
}

TEST_F(GroupConf, InvalidIndexHasNoFilePath)
{
    EXPECT_EQ(file_path(20), "null");
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_conf_get_file_path invalid index '20'");
    EXPECT_EQ(file_path(-1), "null");
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_conf_get_file_path invalid index '-1'");
    expect_no_log();
}

TEST_F(GroupConf, NoIndexHasAFilePathWhileTheBoundIsUnknown)
{
    fake_platform.parameter.reset();
    EXPECT_EQ(file_path(0), "null");
    expect_log(G_LOG_LEVEL_WARNING, UNKNOWN);
    expect_log(G_LOG_LEVEL_WARNING, "sonobrik_group_conf_get_file_path invalid index '0'");
    expect_no_log();
}

TEST_F(GroupConf, IndexIsReadFromAPath)
{
    EXPECT_EQ(sonobrik_group_conf_get_param_index("/etc/dynamic/sonobrik/clip_data/M7.json"), 7);
    expect_no_log();
}

TEST_F(GroupConf, IndexOfAPathIsNotComparedWithTheBound)
{
    EXPECT_EQ(sonobrik_group_conf_get_param_index("/etc/dynamic/sonobrik/clip_data/M99.json"), 99);
    EXPECT_EQ(fake_platform.parameters_read, Names{});
    expect_no_log();
}

TEST_F(GroupConf, PathWithoutANumberHasNoIndex)
{
    EXPECT_EQ(sonobrik_group_conf_get_param_index("/etc/dynamic/sonobrik/clip_data/M.json"), -1);
    expect_log(G_LOG_LEVEL_WARNING, "Could not obtain parameter index from ''");
    EXPECT_EQ(sonobrik_group_conf_get_param_index("/etc/dynamic/sonobrik/clip_data/Mx.json"), -1);
    expect_log(G_LOG_LEVEL_WARNING, "Could not obtain parameter index from 'x'");
    EXPECT_EQ(sonobrik_group_conf_get_param_index("/etc/dynamic/sonobrik/clip_data/M7x.json"), -1);
    expect_log(G_LOG_LEVEL_WARNING, "Could not obtain parameter index from '7x'");
    expect_no_log();
}

TEST_F(GroupConf, PathThatItsNumberDoesNotLeadBackToHasNoIndex)
{
    for (const char *number : {"007", "+7", "-0", "-07", "00"}) {
        const std::string path =
            std::string("/etc/dynamic/sonobrik/clip_data/M") + number + ".json";
        EXPECT_EQ(sonobrik_group_conf_get_param_index(path.c_str()), -1);
        expect_log(G_LOG_LEVEL_WARNING,
                   std::string("Could not obtain parameter index from '") + number + "'");
    }
    expect_no_log();
}

TEST_F(GroupConf, PathOfAnotherFileHasNoIndex)
{
    for (const char *path :
         {"/etc/dynamic/sonobrik/clip_data/7.json", "/etc/dynamic/sonobrik/clip_data/M7.txt",
          "/etc/dynamic/sonobrik/M7.json", "M7.json", "", static_cast<const char *>(nullptr)}) {
        EXPECT_EQ(sonobrik_group_conf_get_param_index(path), -1);
        expect_log(G_LOG_LEVEL_WARNING, "Could not obtain parameter index from '(null)'");
    }
    expect_no_log();
}

TEST_F(GroupConf, FilesAreListedByTheirPattern)
{
    GSList some = {nullptr, nullptr};
    listed = &some;
    EXPECT_EQ(sonobrik_group_conf_get_param_file_list(), &some);
    EXPECT_EQ(listed_pattern, "/etc/dynamic/sonobrik/clip_data/M*.json");
}

TEST_F(GroupConf, NoFilesGiveANullList)
{
    EXPECT_EQ(sonobrik_group_conf_get_param_file_list(), nullptr);
}

TEST_F(GroupConf, ListIsFreedByFileUtils)
{
    GSList some = {nullptr, nullptr};
    GSList *list = &some;
    sonobrik_group_conf_free_param_file_list(&list);
    EXPECT_EQ(freed, &list);
    EXPECT_EQ(list, nullptr);
}
