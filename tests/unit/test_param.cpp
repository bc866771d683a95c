#include "platform/param.h"

#include <cerrno>
#include <optional>
#include <sys/stat.h>

#include "log_test.h"
#include "param_file.h"
#include "temp_dir.h"

using namespace std::string_view_literals;

class Param : public LogTest
{
  protected:
    Param()
    {
        param_set_file("parameters.conf");
    }

    /* Returns the value of `name`. On failure the reason is in `error`. */
    std::optional<std::string> get(const char *name)
    {
        ParamOptions options;
        param_reset_options(&options);
        error = 0;
        g_autofree char *value = param_get(name, &options, &error);
        return value ? std::optional<std::string>(value) : std::nullopt;
    }

    static void write(std::string_view content)
    {
        write_file("parameters.conf", content);
    }

    WorkingTempDir folder;
    int error = 0;
};

TEST_F(Param, ReadsAValueByItsFullName)
{
    write("root.A=1\nroot.SonoBrik.MaxGroups=20\nroot.B=2\n");
    EXPECT_EQ(get("root.SonoBrik.MaxGroups"), "20");
}

TEST_F(Param, LeavesTheErrorCodeAloneOnSuccess)
{
    write("a=1\n");
    ParamOptions options;
    param_reset_options(&options);
    int code = EIO;
    g_autofree char *value = param_get("a", &options, &code);
    EXPECT_STREQ(value, "1");
    EXPECT_EQ(code, EIO);
}

TEST_F(Param, AnswersAnUnknownNameWithENOENT)
{
    write("root.SonoBrik.MaxGroups=20\n");
    EXPECT_EQ(get("root.SonoBrik.MaxGroup"), std::nullopt);
    EXPECT_EQ(error, ENOENT);
}

TEST_F(Param, DoesNotTakeTheEndOrTheBeginningOfALongerName)
{
    write("root.a.b=1\na.b.c=2\n");
    EXPECT_EQ(get("a.b"), std::nullopt);
}

TEST_F(Param, TakesTheLastOfEqualNames)
{
    write("a=1\nb=2\na=3\n");
    EXPECT_EQ(get("a"), "3");
}

TEST_F(Param, ReadsTheFileAtEachCall)
{
    write("a=1\n");
    get("a");
    write("a=2\n");
    EXPECT_EQ(get("a"), "2");
}

TEST_F(Param, SkipsCommentsAlsoIndentedOnes)
{
    write("a=1\n#a=2\n  # a=3\n");
    EXPECT_EQ(get("a"), "1");
    EXPECT_EQ(get("#a"), std::nullopt);
}

TEST_F(Param, KeepsANumberSignWithinAValue)
{
    write("a=1 # one\n");
    EXPECT_EQ(get("a"), "1 # one");
}

TEST_F(Param, IgnoresBlanksAroundNameAndValue)
{
    write(" \t a \t=\t two words \t\n");
    EXPECT_EQ(get("a"), "two words");
}

TEST_F(Param, SplitsAtTheFirstEqualsSign)
{
    write("a=b=c\n");
    EXPECT_EQ(get("a"), "b=c");
    EXPECT_EQ(get("a=b"), std::nullopt);
}

TEST_F(Param, GivesAnEmptyValue)
{
    write("a=\n");
    EXPECT_EQ(get("a"), "");
}

TEST_F(Param, ReadsLinesThatEndInCarriageReturnAndNewline)
{
    write("# comment\r\n\r\na=1\r\nb=2\r\n");
    EXPECT_EQ(get("a"), "1");
    EXPECT_EQ(get("b"), "2");
}

TEST_F(Param, ReadsALastLineWithoutNewline)
{
    write("a=1\nb=2");
    EXPECT_EQ(get("b"), "2");
}

TEST_F(Param, SkipsBlankLinesAndLinesThatAreNoPair)
{
    write("\n\n   \nno pair\n=nameless\na=1\n");
    EXPECT_EQ(get("a"), "1");
    EXPECT_EQ(get("no pair"), std::nullopt);
    EXPECT_EQ(get(""), std::nullopt);
    EXPECT_EQ(error, ENOENT);
}

TEST_F(Param, ReadsAVeryLongLine)
{
    const std::string value(200000, 'x');
    write("a=" + value + "\nb=2\n");
    EXPECT_EQ(get("a"), value);
    EXPECT_EQ(get("b"), "2");
}

TEST_F(Param, SkipsALineWithANul)
{
    write("a=1\na=2\0003\na\0=4\nb=5\n"sv);
    EXPECT_EQ(get("a"), "1");
    EXPECT_EQ(get("b"), "5");
}

TEST_F(Param, AnswersEveryNameOfAnEmptyFileWithENOENT)
{
    write("");
    EXPECT_EQ(get("a"), std::nullopt);
    EXPECT_EQ(error, ENOENT);
}

TEST_F(Param, AnswersAMissingFileWithENOENT)
{
    EXPECT_EQ(get("a"), std::nullopt);
    EXPECT_EQ(error, ENOENT);
}

TEST_F(Param, AnswersAFolderInTheFilesPlaceWithEISDIR)
{
    std::filesystem::create_directory("parameters.conf");
    EXPECT_EQ(get("a"), std::nullopt);
    EXPECT_EQ(error, EISDIR);
}

TEST_F(Param, AnswersWithTheErrorOfOpeningTheFile)
{
    std::filesystem::create_symlink("parameters.conf", "parameters.conf");
    EXPECT_EQ(get("a"), std::nullopt);
    EXPECT_EQ(error, ELOOP);
}

TEST_F(Param, DoesNotWaitForAFifoInTheFilesPlace)
{
    ASSERT_EQ(mkfifo("parameters.conf", 0600), 0);
    EXPECT_EQ(get("a"), std::nullopt);
    EXPECT_EQ(error, EINVAL);
}

TEST_F(Param, RefusesADeviceInTheFilesPlace)
{
    std::filesystem::create_symlink("/dev/zero", "parameters.conf");
    EXPECT_EQ(get("a"), std::nullopt);
    EXPECT_EQ(error, EINVAL);
}

TEST_F(Param, RefusesAFileOfMoreThanAMebibyte)
{
    write("a=1\n#" + std::string(1024 * 1024, 'x'));
    EXPECT_EQ(get("a"), std::nullopt);
    EXPECT_EQ(error, EFBIG);
}

TEST_F(Param, AnswersNullArgumentsWithEINVAL)
{
    write("a=1\n");
    ParamOptions options;
    param_reset_options(&options);
    EXPECT_EQ(get(nullptr), std::nullopt);
    EXPECT_EQ(error, EINVAL);
    error = 0;
    EXPECT_EQ(param_get("a", nullptr, &error), nullptr);
    EXPECT_EQ(error, EINVAL);
    EXPECT_EQ(param_get("a", &options, nullptr), nullptr);
}

TEST_F(Param, ResetsOptionsToTheirDefaults)
{
    ParamOptions options{77};
    param_reset_options(&options);
    EXPECT_EQ(options.flags, 0U);
    param_reset_options(nullptr);
}

TEST_F(Param, ReadsTheFileThatIsShipped)
{
    std::filesystem::create_symlink(PROJECT_DATA "/vesk/parameters.conf", "parameters.conf");
    EXPECT_EQ(get("root.SonoBrik.MaxGroups"), "100");
}
