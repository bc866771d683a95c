#include "control_conf.h"

#include <gtest/gtest.h>

namespace
{

ControlConf parse(std::string_view text)
{
    ControlConf conf;
    std::string mistake;
    EXPECT_TRUE(control_conf_parse(text, &conf, &mistake)) << mistake;
    return conf;
}

/* Returns the mistake in the text, in which the defaults apply. */
std::string refuse(std::string_view text)
{
    ControlConf conf;
    std::string mistake;
    EXPECT_FALSE(control_conf_parse(text, &conf, &mistake)) << text;
    EXPECT_TRUE(conf.empty());
    return mistake;
}

} // namespace

TEST(ControlConf, ReadsSections)
{
    const ControlConf conf = parse("# comment\n"
                                   "\n"
                                   " [ serial = A B ] \r\n"
                                   "number = 5\n"
                                   "name = Küche = oben\n"
                                   "[card=Loopback]\n"
                                   "leave-out=yes");
    ASSERT_EQ(conf.size(), 2U);
    EXPECT_EQ(conf[0].match, CONTROL_MATCH_SERIAL);
    EXPECT_EQ(conf[0].value, "A B");
    EXPECT_EQ(conf[0].number, 5);
    EXPECT_EQ(conf[0].name, "Küche = oben");
    EXPECT_EQ(conf[0].leave_out, std::nullopt);
    EXPECT_EQ(conf[1].match, CONTROL_MATCH_CARD);
    EXPECT_EQ(conf[1].leave_out, true);
}

TEST(ControlConf, IsEmptyForAnEmptyFile)
{
    EXPECT_TRUE(parse("").empty());
    EXPECT_TRUE(parse("\n# [serial=A]\n").empty());
}

TEST(ControlConf, TellsTheLineOfAMistake)
{
    EXPECT_EQ(refuse("[card=a]\n\nnumber=1000\n"), "3: the number must be 0 to 999");
    EXPECT_EQ(refuse("[card=a]\nnumber=-1\n"), "2: the number must be 0 to 999");
    EXPECT_EQ(refuse(std::string_view("[card=a]\nnumber=1\0\n", 19)),
              "2: the number must be 0 to 999");
    EXPECT_EQ(refuse("[card=a]\nnumber=1\n[card=b]\nnumber=1\n"), "4: two sections have number 1");
    EXPECT_EQ(refuse("[card=a]\n[card=a]\n"), "2: this section occurs twice");
    EXPECT_EQ(refuse("name=x\n"), "1: a key must be below a section");
    EXPECT_EQ(refuse("[card=a]\nnames=x\n"), "2: the keys are number, name and leave-out");
    EXPECT_EQ(refuse("[card=a]\nname\n"), "2: neither a section nor KEY=VALUE");
    EXPECT_EQ(refuse("[card=a]\nleave-out=true\n"), "2: leave-out must be yes or no");
    for (const char *name : {"", "\x1b", "\xff"}) {
        EXPECT_EQ(refuse(std::string("[card=a]\nname=") + name + '\n'),
                  "2: a name has 1 to 255 bytes without control characters");
    }
    for (const char *key : {"number=1", "name=x", "leave-out=no"}) {
        EXPECT_EQ(refuse(std::string("[card=a]\n") + key + '\n' + key + '\n'),
                  "3: this key occurs twice in the section");
    }
    for (const char *text : {"\x1b", "\xff", "a\tb"}) {
        EXPECT_EQ(refuse(std::string("[serial=") + text + "]\n"),
                  "1: the text of a section has 1 to 255 bytes without control characters");
    }
    for (const char *section : {"[card]", "[card=]", "[card=a", "[cards=a]", "[=a]", "["}) {
        EXPECT_EQ(refuse(section), "1: a section is [serial=...], [path=...] or [card=...]");
    }
}

TEST(ControlConf, PrefersTheMostReliableSection)
{
    const ControlConf conf = parse("[card=c]\nname=by card\nleave-out=yes\nnumber=1\n"
                                   "[path=p]\nnumber=2\nname=by path\n"
                                   "[serial=s]\nname=by serial\n");
    const ControlRule rule = control_conf_find(conf, "s", "p", "c");
    EXPECT_EQ(rule.name, "by serial");
    EXPECT_EQ(rule.number, 2);
    EXPECT_EQ(rule.leave_out, true);
    EXPECT_EQ(control_conf_find(conf, "", "", "").name, std::nullopt);
    EXPECT_EQ(control_conf_find(conf, "p", "c", "s").name, std::nullopt);
}
