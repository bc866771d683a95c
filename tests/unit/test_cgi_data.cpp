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

} // namespace
