#include "cgi_data.h"

#include <gtest/gtest.h>
#include <jansson.h>

#include "autoptr.h"

namespace
{

TEST(CgiData, EmbedsJsonWithoutCharactersOfHtml)
{
    EXPECT_EQ(cgi_data_embed(R"({"a":"</script>&"})"), R"({"a":"\u003c/script\u003e\u0026"})");
    EXPECT_EQ(cgi_data_embed(R"(["\"","\\","\\\"","\n"])"), R"(["\u0022","\\","\\\u0022","\n"])");
}

TEST(CgiData, ListsClipsAndWhatPlays)
{
    CgiState state;
    state.clips = {
        {.number = 0,
         .name = "Door",
         .location = "/etc/audioclips/d.wav",
         .duration_ms = 5,
         .is_file_missing = false},
        {.number = 4,
         .name = "a\x1b",
         .location = "/x/<\x1b>.wav",
         .duration_ms = -1,
         .is_file_missing = false},
        {.number = 5, .name = "", .location = "", .duration_ms = -1, .is_file_missing = true},
    };
    state.now.is_known = true;
    state.now.revision = "1 2";
    state.now.outputs = {{.number = 1,
                          .name = "",
                          .unplugged = false,
                          .playing = true,
                          .file = "/etc/audioclips/d.wav",
                          .title = "",
                          .elapsed_ms = 7}};
    EXPECT_EQ(
        cgi_data_make_list({}, state),
        R"({"clips":[{"number":0,"name":"Door","file":"d.wav","length":5},)"
        R"({"number":4,"name":"a\\x1b","file":"/x/<\\x1b>.wav","location":"/x/<\u001B>.wav"},)"
        R"({"number":5,"name":"","file":"","location":"","missing":true}],"changes":null,)"
        R"("status":{"known":true,"text":"d.wav is playing on output 1.","outputs":[{"output":1,)"
        R"("playing":true,"file":"/etc/audioclips/d.wav","elapsed":7}],"revision":"1 2"}})");
}

TEST(CgiData, NamesTheOutputs)
{
    CgiNow now;
    now.is_known = true;
    now.outputs.resize(3);
    now.outputs[0].name = "Hall";
    now.outputs[0].unplugged = true;
    now.outputs[1].number = 1;
    now.outputs[1].name = "Küche";
    now.outputs[1].playing = true;
    now.outputs[1].file = "/etc/audioclips/d.wav";
    now.outputs[2].number = 2;
    EXPECT_EQ(cgi_output_describe(now.outputs[0]), "Hall (output 0, unplugged)");
    EXPECT_EQ(cgi_output_describe(now.outputs[2]), "output 2");
    EXPECT_EQ(cgi_data_make_status(now),
              R"({"known":true,"text":"d.wav is playing on Küche (output 1).","outputs":[)"
              R"({"output":0,"playing":false,"file":"","name":"Hall","unplugged":true},)"
              R"({"output":1,"playing":true,"file":"/etc/audioclips/d.wav","name":"Küche"},)"
              R"({"output":2,"playing":false,"file":""}],"revision":""})");
}

} // namespace
