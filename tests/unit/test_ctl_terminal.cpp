#include "ctl_terminal.h"

#include <gtest/gtest.h>

namespace
{

std::string print(const CtlTable &table)
{
    ::testing::internal::CaptureStdout();
    ctl_table_print(&table);
    return ::testing::internal::GetCapturedStdout();
}

TEST(CtlTerminal, CountsColumnsNotBytes)
{
    EXPECT_EQ(ctl_terminal_width(""), 0);
    EXPECT_EQ(ctl_terminal_width("Tür"), 3);
    EXPECT_EQ(ctl_terminal_width("u\xcc\x88"), 1); /* combining diaeresis */
    EXPECT_EQ(ctl_terminal_width("鈴"), 2);
}

TEST(CtlTerminal, AlignsATableByColumnWidth)
{
    const CtlTable table = {
        .is_right = {true, false, false},
        .rows = {{"N", "NAME", "F"}, {"10", "鈴", "a"}, {"1", "Tür", ""}},
    };
    EXPECT_EQ(print(table), " N  NAME  F\n"
                            "10  鈴    a\n"
                            " 1  Tür\n");
}

TEST(CtlTerminal, EscapesTheTextsOfATable)
{
    const CtlTable table = {.is_right = {false, false}, .rows = {{"a\n", "b"}, {"\x1b", "c"}}};
    EXPECT_EQ(print(table), "a\\x0a  b\n\\x1b   c\n");
}

} // namespace
