#pragma once

/* A test fixture that sees the log. */

#include <deque>
#include <glib.h>
#include <gtest/gtest.h>
#include <mutex>
#include <string>

#include "log_level.h"

/*
 * Collects what the code under test logs, debug lines apart. A test takes the lines that it expects
 * with expect_log(), oldest first; a line of a warning's weight or more that no test line took
 * fails the test at its end.
 */
class LogTest : public ::testing::Test
{
  protected:
    LogTest();
    ~LogTest() override;

    void TearDown() override;

    /* The oldest line not taken yet must have exactly this level and text. */
    void expect_log(GLogLevelFlags level, const std::string &text);

    /* Every line was taken. */
    void expect_no_log();

    /* Forgets the lines so far. */
    void clear_log();

  private:
    struct Line {
        GLogLevelFlags level;
        std::string text;
    };

    static void record(const gchar *domain, GLogLevelFlags level, const gchar *message,
                       gpointer user_data);

    std::mutex lock; /* streaming threads log too */
    std::deque<Line> lines;
    GLogFunc previous_handler;
};
