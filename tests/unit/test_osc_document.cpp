#include "osc_document.h"

#include <cstdlib>
#include <string>
#include <vector>

#include "failing_calls.h"
#include "log_test.h"
#include "sonobrik_group.h"

namespace
{

struct Clip {
    gint32 index;
    const char *name; /* may be null */
};

std::vector<Clip> clips; /* the stored clips, in the order of the store */
int lists;               /* lists that are not released yet */

class OscDocument : public LogTest
{
  protected:
    OscDocument()
    {
        clips.clear();
        lists = 0;
    }

    ~OscDocument() override
    {
        EXPECT_EQ(lists, 0) << "a list of records was kept";
    }

    static std::string document()
    {
        char *text = osc_document_new();
        std::string copy = text ? text : "null";
        free(text);
        return copy;
    }

    /* Returns the whole document with these "values". */
    static std::string document_with(const std::string &values)
    {
        return R"({"name":"playClip","niceName":"Play sono brik","featureGroups":[],"features":[)"
               R"({"user":["operator"],"info":"Select clip","name":"sonobrik",)"
               R"("niceName":"Select clip","requestType":"GET",)"
               R"("requestURL":"/vesk-cgi/sonobrik.cgi?action=play&clip={clip}",)"
               R"("parameters":{"clip":{"niceName":"Clip","type":"multiOptions","values":[)" +
               values +
               R"(]}}},)"
               R"({"user":["operator"],"info":"Stop clip","name":"stopclip",)"
               R"("niceName":"Stop clip","requestType":"GET",)"
               R"("requestURL":"/vesk-cgi/sonobrik.cgi?action=stop"}]})";
    }

    void expect_errors(const std::vector<std::string> &texts)
    {
        for (const std::string &text : texts) {
            expect_log(LOG_LEVEL_ERROR, text);
        }
        expect_no_log();
    }

    FailingCalls calls;
};

} // namespace

GSList *sonobrik_group_get_parameter_list()
{
    GSList *groups = nullptr;
    for (const Clip &clip : clips) {
        auto *group = g_new0(SonobrikGroup, 1);
        group->index = clip.index;
        group->name = g_strdup(clip.name);
        groups = g_slist_append(groups, group);
    }
    lists += groups ? 1 : 0;
    return groups;
}

void sonobrik_group_release_parameter_list(GSList **list)
{
    lists -= *list ? 1 : 0;
    g_slist_free_full(g_steal_pointer(list), [](gpointer group) {
        sonobrik_group_free(static_cast<SonobrikGroup *>(group));
    });
}

TEST_F(OscDocument, HasTheExactTextWithoutClips)
{
    EXPECT_EQ(document(), document_with(""));
    expect_no_log();
}

TEST_F(OscDocument, ListsTheClipsInTheOrderOfTheStore)
{
    clips = {{1, "Door"}, {2, "Bell"}, {0, "Door"}};
    EXPECT_EQ(document(), document_with(R"({"niceName":"Door","value":1},)"
                                        R"({"niceName":"Bell","value":2},)"
                                        R"({"niceName":"Door","value":0})"));
    expect_no_log();
}

TEST_F(OscDocument, ListsAnyNameThatTheBusCanCarry)
{
    clips = {{1, ""}, {2, "\"T\xC3\xBCr\" \\ {clip}\n"}};
    EXPECT_EQ(document(), document_with("{\"niceName\":\"\",\"value\":1},"
                                        "{\"niceName\":\"\\\"T\xC3\xBCr\\\" \\\\ {clip}\\n\","
                                        "\"value\":2}"));
    expect_no_log();
}

TEST_F(OscDocument, LeavesOutTheClipsBeyondItsBudget)
{
    /* Each takes 255 * 6 bytes for the name, 26 to 28 for the rest, and up to 5 for the number. */
    const std::string name(255, 1);
    for (int i = 0; i < 11000; i++) {
        clips.push_back({i, name.c_str()});
    }
    const std::string text = document();
    EXPECT_LE(text.size(), size_t{16} * 1024 * 1024 + document_with("").size());
    size_t offered = 0;
    for (size_t at = text.find("\"value\":"); at != std::string::npos;
         at = text.find("\"value\":", at + 1)) {
        offered++;
    }
    EXPECT_GT(offered, 10000U);
    expect_log(G_LOG_LEVEL_WARNING,
               "Left out " + std::to_string(11000 - offered) +
                   " clips, because the list for the on-screen controls would exceed 16777216 "
                   "bytes");
    expect_no_log();
}

TEST_F(OscDocument, FailsForAClipWithoutAName)
{
    clips = {{1, "Door"}, {2, nullptr}, {3, "Bell"}};
    EXPECT_EQ(document(), "null");
    expect_errors({"Failed to add clip to parameters.",
                   "Failed to generate clip parameters for 'Select clip' action.",
                   "Failed to generate json object for play action."});
}

TEST_F(OscDocument, FailsIfAClipCannotBeAppended)
{
    clips = {{1, "Door"}, {2, "Bell"}};
    calls.fail_one("json_array_append_new", 2);
    EXPECT_EQ(document(), "null");
    expect_errors({"Failed to add clip to parameters.",
                   "Failed to generate clip parameters for 'Select clip' action.",
                   "Failed to generate json object for play action."});
}

/* The objects are packed in this order: play action, clips, parameter, stop action, document. */

TEST_F(OscDocument, FailsIfThePlayActionCannotBePacked)
{
    calls.fail_one("json_pack", 1);
    EXPECT_EQ(document(), "null");
    expect_errors({"Failed to pack json object for 'Select clip' action.",
                   "Failed to generate json object for play action."});
}

TEST_F(OscDocument, FailsIfTheClipParameterCannotBePacked)
{
    clips = {{1, "Door"}};
    calls.fail_one("json_pack", 3);
    EXPECT_EQ(document(), "null");
    expect_errors({"Failed to pack json object for clip parameters.",
                   "Failed to generate clip parameters for 'Select clip' action.",
                   "Failed to generate json object for play action."});
}

TEST_F(OscDocument, FailsIfTheParameterCannotBeAddedToTheAction)
{
    clips = {{1, "Door"}};
    calls.fail("json_object_set_new");
    EXPECT_EQ(document(), "null");
    expect_errors({"Failed to add clip parameters to 'Select clip' action.",
                   "Failed to generate json object for play action."});
}

TEST_F(OscDocument, FailsIfTheStopActionCannotBePacked)
{
    calls.fail_one("json_pack", 3);
    EXPECT_EQ(document(), "null");
    expect_errors({"Failed to pack json object for 'Stop clip' action.",
                   "Failed to generate json object for stop action."});
}

TEST_F(OscDocument, FailsIfTheDocumentCannotBePacked)
{
    calls.fail_one("json_pack", 4);
    EXPECT_EQ(document(), "null");
    expect_errors({"Failed to pack json object for all actions."});
}

TEST_F(OscDocument, FailsIfTheTextCannotBeMade)
{
    calls.fail("json_dumps");
    EXPECT_EQ(document(), "null");
    expect_no_log();
}
