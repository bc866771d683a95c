#include "cgi_template.h"

#include <gtest/gtest.h>

namespace
{

CgiValues make_texts(std::map<std::string, std::string, std::less<>> texts)
{
    CgiValues values;
    values.texts = std::move(texts);
    return values;
}

TEST(CgiTemplate, ReplacesPlaceholders)
{
    EXPECT_EQ(cgi_template_fill("a {{x}}{{y}} b", make_texts({{"x", "1"}, {"y", "2"}})), "a 12 b");
}

TEST(CgiTemplate, LeavesUnknownPlaceholdersEmpty)
{
    EXPECT_EQ(cgi_template_fill("[{{x}}]", {}), "[]");
}

TEST(CgiTemplate, EscapesTextsForHtml)
{
    EXPECT_EQ(cgi_template_fill("<a b=\"{{x}}\">", make_texts({{"x", "<&>\"'"}})),
              "<a b=\"&lt;&amp;&gt;&quot;&#39;\">");
}

TEST(CgiTemplate, DoesNotFillPlaceholdersInsideTexts)
{
    EXPECT_EQ(cgi_template_fill("{{x}}", make_texts({{"x", "{{y}}"}, {"y", "no"}})), "{{y}}");
}

TEST(CgiTemplate, RepeatsASectionForEachOfItsValues)
{
    CgiValues values;
    values.sections["s"] = {make_texts({{"x", "1"}}), make_texts({{"x", "2"}})};
    EXPECT_EQ(cgi_template_fill("a{{#s}}<{{x}}>{{/s}}b", values), "a<1><2>b");
}

TEST(CgiTemplate, OmitsASectionWithoutValues)
{
    CgiValues values;
    values.sections["s"] = {};
    EXPECT_EQ(cgi_template_fill("a{{#s}}x{{/s}}b{{#t}}y{{/t}}c", values), "abc");
}

TEST(CgiTemplate, LooksUpNamesInTheEnclosingSection)
{
    CgiValues inner = make_texts({{"x", "inner"}});
    inner.sections["t"] = {CgiValues()};
    CgiValues values = make_texts({{"x", "outer"}, {"y", "around"}});
    values.sections["s"] = {inner};
    EXPECT_EQ(cgi_template_fill("{{#s}}{{x}} {{#t}}{{y}} {{x}}{{/t}}{{/s}} {{x}}", values),
              "inner around inner outer");
}

TEST(CgiTemplate, StopsAtUnclosedPlaceholdersAndSections)
{
    CgiValues values;
    values.sections["s"] = {CgiValues()};
    EXPECT_EQ(cgi_template_fill("a{{x", values), "a{{x");
    EXPECT_EQ(cgi_template_fill("a{{#s}}b", values), "ab");
    EXPECT_EQ(cgi_template_fill("a{{}}b{{#}}c", values), "ab");
}

} // namespace
