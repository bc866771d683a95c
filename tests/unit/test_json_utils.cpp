#include "json_utils.h"

#include <cstdlib>
#include <cstring>
#include <dlfcn.h>
#include <optional>
#include <string>
#include <sys/stat.h>
#include <unistd.h>

#include "autoptr.h"
#include "log_test.h"
#include "platform/util.h"
#include "temp_dir.h"

namespace
{

struct FakeWrite {
    int calls = 0;
    bool fails = false;
    std::string path;
    std::string text;
    mode_t mode = 0;
};

FakeWrite fake_write;

/* What json_dumps() returns instead of the value's own text. */
std::optional<std::string> fake_serialised;

} // namespace

int util_write_file_synced(const char *path, const char *text, size_t length, mode_t mode)
{
    fake_write.calls++;
    fake_write.path = path;
    fake_write.text.assign(text, length);
    fake_write.mode = mode;
    return fake_write.fails ? 0 : 1;
}

/* Replaces Jansson's function, which it calls unless a test asks for another result. */
char *json_dumps(const json_t *json, size_t flags)
{
    if (fake_serialised) {
        return strdup(fake_serialised->c_str());
    }
    static auto real = reinterpret_cast<decltype(&json_dumps)>(dlsym(RTLD_NEXT, "json_dumps"));
    return real(json, flags);
}

namespace
{

class JsonUtils : public LogTest
{
  protected:
    JsonUtils()
    {
        fake_write = FakeWrite();
        fake_serialised.reset();
    }

    /* Loads a file with this content. Returns the value on one line, or "" for null. */
    std::string load(const std::string &content)
    {
        g_autoptr(json_t) value =
            json_utils_load_from_file(dir.file("value.json", content).c_str());
        char *text = json_dumps(value, JSON_COMPACT);
        std::string result = text ? text : "";
        free(text);
        return result;
    }

    /* Returns the error that Jansson itself reports for the file at `path`. */
    static json_error_t jansson_error(const std::string &path)
    {
        json_error_t error = {};
        EXPECT_EQ(json_load_file(path.c_str(), 0, &error), nullptr);
        return error;
    }

    void expect_load_failure_of(const std::string &path)
    {
        const json_error_t error = jansson_error(path);
        EXPECT_EQ(json_utils_load_from_file(path.c_str()), nullptr);
        expect_log(G_LOG_LEVEL_WARNING, "Failed to load JSON, line " + std::to_string(error.line) +
                                            " error '" + error.text + "'");
        expect_no_log();
    }

    TempDir dir;
};

json_t *parse(const char *text)
{
    return json_loads(text, JSON_DECODE_ANY, nullptr);
}

TEST_F(JsonUtils, LoadingNullGivesNullSilently)
{
    EXPECT_EQ(json_utils_load_from_file(nullptr), nullptr);
    expect_no_log();
}

TEST_F(JsonUtils, LoadsAnObject)
{
    EXPECT_EQ(load("{\"b\": 1, \"a\": [true, null]}\n"), "{\"b\":1,\"a\":[true,null]}");
    expect_no_log();
}

TEST_F(JsonUtils, LoadsAnArray)
{
    EXPECT_EQ(load("[1, \"\u00e9\"]"), "[1,\"\u00e9\"]");
}

TEST_F(JsonUtils, LoadsTheLastOfEqualKeys)
{
    EXPECT_EQ(load("{\"a\": 1, \"a\": 2}"), "{\"a\":2}");
}

TEST_F(JsonUtils, LoadedValueIsTheCallersAlone)
{
    g_autoptr(json_t) value = json_utils_load_from_file(dir.file("value.json", "{}").c_str());
    ASSERT_NE(value, nullptr);
    EXPECT_EQ(value->refcount, 1u);
}

TEST_F(JsonUtils, MissingFileIsLoggedWithThePathAndTheReason)
{
    const std::string path = dir.path("missing.json");
    EXPECT_EQ(json_utils_load_from_file(path.c_str()), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "Failed to load JSON, line -1 error 'unable to open " + path +
                                        ": No such file or directory'");
    expect_no_log();
}

TEST_F(JsonUtils, BrokenTextIsLoggedWithItsLine)
{
    const std::string path = dir.file("broken.json", "{\n  \"a\": 1,\n  \"b\": }\n");
    EXPECT_EQ(jansson_error(path).line, 3);
    expect_load_failure_of(path);
}

TEST_F(JsonUtils, TornFileIsRefused)
{
    expect_load_failure_of(dir.file("torn.json", "{\n  \"a\": 1"));
}

TEST_F(JsonUtils, EmptyFileIsRefused)
{
    expect_load_failure_of(dir.file("empty.json"));
}

TEST_F(JsonUtils, TextAfterTheValueIsRefused)
{
    expect_load_failure_of(dir.file("long.json", "{} {}"));
}

TEST_F(JsonUtils, ValueThatIsNeitherObjectNorArrayIsRefused)
{
    expect_load_failure_of(dir.file("number.json", "42"));
}

TEST_F(JsonUtils, TextThatIsNotUtf8IsRefused)
{
    expect_load_failure_of(dir.file("latin.json", "[\"\xe9\"]"));
}

TEST_F(JsonUtils, DirectoryIsRefused)
{
    expect_load_failure_of(dir.root);
}

TEST_F(JsonUtils, LongPathIsTruncatedInTheLogAsJanssonDoes)
{
    expect_load_failure_of(dir.path(std::string(200, 'x')));
}

TEST_F(JsonUtils, FileThatMayNotBeReadIsLoggedWithTheReason)
{
    const std::string path = dir.file("value.json", "{}");
    ASSERT_EQ(chmod(path.c_str(), 0), 0);
    if (access(path.c_str(), R_OK) == 0) {
        GTEST_SKIP() << "this user may read every file";
    }
    expect_load_failure_of(path);
}

TEST_F(JsonUtils, FileThatIsNotRegularIsRefusedAtOnce)
{
    ASSERT_EQ(mkfifo(dir.path("fifo").c_str(), 0600), 0);
    for (const std::string &path :
         {dir.path("fifo"), dir.socket("socket"), std::string("/dev/zero")}) {
        EXPECT_EQ(json_utils_load_from_file(path.c_str()), nullptr);
        expect_log(G_LOG_LEVEL_WARNING, "Failed to load JSON, line -1 error 'not a regular file'");
        expect_no_log();
    }
}

TEST_F(JsonUtils, FileOf1MiBIsLoadedAndALongerOneRefused)
{
    std::string content = "[1]";
    content.append(1024 * 1024 - content.size(), ' ');
    EXPECT_EQ(load(content), "[1]");
    expect_no_log();
    EXPECT_EQ(load(content + ' '), "");
    expect_log(G_LOG_LEVEL_WARNING, "Failed to load JSON, line -1 error 'more than 1048576 bytes'");
    expect_no_log();
}

TEST_F(JsonUtils, NoMoreThan1MiBIsReadOfAHugeFile)
{
    const std::string path = dir.file("huge.json", std::string(2 * 1024 * 1024, '\n'));
    std::filesystem::resize_file(path, uintmax_t{64} << 30);
    EXPECT_EQ(json_utils_load_from_file(path.c_str()), nullptr);
    expect_log(G_LOG_LEVEL_WARNING, "Failed to load JSON, line -1 error 'more than 1048576 bytes'");
    expect_no_log();
}

TEST_F(JsonUtils, LinkToAFileIsFollowed)
{
    dir.file("value.json", "[1]");
    g_autoptr(json_t) value = json_utils_load_from_file(dir.link("link", "value.json").c_str());
    EXPECT_EQ(json_array_size(value), 1u);
}

TEST_F(JsonUtils, LoadingClosesTheFile)
{
    const size_t before = count_open_files();
    load("{}");
    EXPECT_EQ(json_utils_load_from_file(dir.file("broken.json", "{").c_str()), nullptr);
    EXPECT_EQ(count_open_files(), before);
    clear_log();
}

TEST_F(JsonUtils, SavingToNullFailsSilently)
{
    g_autoptr(json_t) value = json_object();
    EXPECT_FALSE(json_utils_save_to_file(nullptr, value));
    EXPECT_EQ(fake_write.calls, 0);
    expect_no_log();
}

TEST_F(JsonUtils, SavingNullFailsSilently)
{
    EXPECT_FALSE(json_utils_save_to_file("/value.json", nullptr));
    EXPECT_EQ(fake_write.calls, 0);
    expect_no_log();
}

TEST_F(JsonUtils, SavesIndentedByTwoInInsertionOrderWithoutAFinalNewline)
{
    g_autoptr(json_t) value = parse("{\"b\": 1, \"a\": {\"d\": [true], \"c\": \"x\"}}");
    EXPECT_TRUE(json_utils_save_to_file("/value.json", value));
    EXPECT_EQ(fake_write.text, "{\n"
                               "  \"b\": 1,\n"
                               "  \"a\": {\n"
                               "    \"d\": [\n"
                               "      true\n"
                               "    ],\n"
                               "    \"c\": \"x\"\n"
                               "  }\n"
                               "}");
}

TEST_F(JsonUtils, SavesTextAsItIs)
{
    g_autoptr(json_t) value = parse("[\"/clips/\u00e9t\u00e9.wav\"]");
    EXPECT_TRUE(json_utils_save_to_file("/value.json", value));
    EXPECT_EQ(fake_write.text, "[\n  \"/clips/\u00e9t\u00e9.wav\"\n]");
}

TEST_F(JsonUtils, SavesOnceToThePathReadableByAllAndWritableByTheOwner)
{
    g_autoptr(json_t) value = json_object();
    EXPECT_TRUE(json_utils_save_to_file("/clips/value.json", value));
    EXPECT_EQ(fake_write.calls, 1);
    EXPECT_EQ(fake_write.path, "/clips/value.json");
    EXPECT_EQ(fake_write.mode, 0644u);
    expect_no_log();
}

TEST_F(JsonUtils, SavingKeepsNoReferenceToTheValue)
{
    g_autoptr(json_t) value = json_object();
    EXPECT_TRUE(json_utils_save_to_file("/value.json", value));
    EXPECT_EQ(value->refcount, 1u);
}

TEST_F(JsonUtils, ValueThatIsNeitherObjectNorArrayIsNotSaved)
{
    g_autoptr(json_t) value = json_integer(42);
    EXPECT_FALSE(json_utils_save_to_file("/value.json", value));
    EXPECT_EQ(fake_write.calls, 0);
    expect_no_log();
}

TEST_F(JsonUtils, ValueThatHoldsItselfIsNotSaved)
{
    g_autoptr(json_t) value = json_array();
    json_t *child = json_array();
    json_array_append_new(value, child);
    json_array_append(child, value);
    EXPECT_FALSE(json_utils_save_to_file("/value.json", value));
    EXPECT_EQ(fake_write.calls, 0);
    expect_no_log();
    json_array_clear(child);
}

TEST_F(JsonUtils, EmptyTextIsNotSaved)
{
    fake_serialised = "";
    g_autoptr(json_t) value = json_object();
    EXPECT_FALSE(json_utils_save_to_file("/value.json", value));
    EXPECT_EQ(fake_write.calls, 0);
    expect_no_log();
}

TEST_F(JsonUtils, FailedWriteIsLoggedWithThePath)
{
    fake_write.fails = true;
    g_autoptr(json_t) value = json_object();
    EXPECT_FALSE(json_utils_save_to_file("/clips/value.json", value));
    expect_log(G_LOG_LEVEL_WARNING,
               "json_utils_save_to_file failed to save json data to file '/clips/value.json'");
    expect_no_log();
}

} // namespace

/* The bound of a text's size. */

TEST(JsonUtilsBound, CoversEveryKindOfValue)
{
    for (const char *text : {
             "[]",
             "{}",
             "[null,true,false]",
             "[-9223372036854775808,9223372036854775807,-1.7976931348623157e+308]",
             R"(["\u0001\u0002","\"\\","\u20ac\n"])",
             R"({"\u0001\"":{"":["a",{"b":[[[]]]}]}})",
             /* Each has so many of one kind that no other part of the bound makes up for it. */
             R"(["","","","","","","",""])",
             R"(["\"\"\"\"\"\"\"\"\"\""])",
             R"(["\\\\\\\\\\\\\\\\\\\\"])",
         }) {
        g_autoptr(json_t) value = json_loads(text, 0, nullptr);
        ASSERT_NE(value, nullptr) << text;
        EXPECT_GE(json_utils_bound_size(value), json_dumpb(value, nullptr, 0, JSON_COMPACT))
            << text;
    }
}

TEST(JsonUtilsBound, IsCloseForPlainTexts)
{
    const std::string text = "[\"" + std::string(1000, 'x') + "\"]";
    g_autoptr(json_t) value = json_loads(text.c_str(), 0, nullptr);
    EXPECT_LE(json_utils_bound_size(value), text.size() + 10);
}

TEST(JsonUtilsBound, NullCountsAsANumber)
{
    EXPECT_EQ(json_utils_bound_size(nullptr), 32U);
}
