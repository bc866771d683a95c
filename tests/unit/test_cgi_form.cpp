#include "cgi_form.h"

#include <gtest/gtest.h>

namespace
{

CgiForm read(std::string_view text)
{
    CgiForm form;
    std::string why;
    EXPECT_TRUE(cgi_form_read(&form, text, &why)) << text << ": " << why;
    return form;
}

/* Expects that the text is rejected, and returns the error message. */
std::string reject(std::string_view text)
{
    CgiForm form;
    std::string why;
    EXPECT_FALSE(cgi_form_read(&form, text, &why)) << text;
    return why;
}

TEST(CgiForm, ReadsPairs)
{
    EXPECT_EQ(read("action=play&clip=3"), (CgiForm{{"action", "play"}, {"clip", "3"}}));
}

TEST(CgiForm, SkipsEmptyPairs)
{
    EXPECT_TRUE(read("").empty());
    EXPECT_TRUE(read("&&&").empty());
}

TEST(CgiForm, AcceptsKeysWithoutAValue)
{
    EXPECT_EQ(read("a&b="), (CgiForm{{"a", ""}, {"b", ""}}));
}

TEST(CgiForm, SplitsAtTheFirstEqualsSign)
{
    EXPECT_EQ(read("a=b=c"), (CgiForm{{"a", "b=c"}}));
}

TEST(CgiForm, UnescapesKeysAndValues)
{
    EXPECT_EQ(read("%61+b=%C3%B6+%2B%26%3d%25"), (CgiForm{{"a b", "\u00f6 +&=%"}}));
}

TEST(CgiForm, RejectsInvalidEscapes)
{
    for (const char *text : {"a=%", "a=%4", "a=%4g", "a=%g4", "%=a", "a=b&c=%+1", "a=%%41"}) {
        EXPECT_EQ(reject(text), "A '%' is not followed by two hexadecimal digits.");
    }
}

TEST(CgiForm, RejectsNulBytesAndInvalidUtf8)
{
    for (const char *text : {"a=%00", "%00=a", "a=%ff", "a=%C3", "a=%C3&b=%B6", "a=%ED%A0%80"}) {
        EXPECT_EQ(reject(text), "A parameter is not valid UTF-8 text.");
    }
    EXPECT_EQ(reject(std::string_view("a=b\0c", 5)), "A parameter is not valid UTF-8 text.");
}

TEST(CgiForm, RejectsADuplicateKey)
{
    EXPECT_EQ(reject("a=1&a=1"), "Parameter 'a' is given twice.");
    EXPECT_EQ(reject("a=1&%61=2"), "Parameter 'a' is given twice.");
}

TEST(CgiForm, RejectsAKeyThatTheFormAlreadyContains)
{
    CgiForm form = {{"a", "1"}};
    std::string why;
    EXPECT_TRUE(cgi_form_read(&form, "b=1", &why));
    EXPECT_FALSE(cgi_form_read(&form, "a=1", &why));
}

TEST(CgiForm, RejectsATruncatedEscapeAfterAnyBytes)
{
    for (int first = 0; first <= 0xFF; first++) {
        for (int second = 0; second <= 0xFF; second++) {
            const std::string text = {static_cast<char>(first), static_cast<char>(second), '%'};
            CgiForm form;
            std::string why;
            EXPECT_FALSE(cgi_form_read(&form, text, &why));
            EXPECT_FALSE(why.empty());
        }
    }
}

TEST(CgiForm, ReturnsAnEmptyValueForAMissingKey)
{
    const CgiForm form = {{"a", "1"}};
    EXPECT_EQ(cgi_form_get(form, "a"), "1");
    EXPECT_EQ(cgi_form_get(form, "b"), "");
}

} // namespace
