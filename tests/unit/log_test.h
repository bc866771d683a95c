#pragma once

/* A fixture that captures the log. */

#include <deque>
#include <glib.h>
#include <gtest/gtest.h>
#include <mutex>
#include <string>

#include "log_level.h"

/*
 * Captures what the code under test logs, except debug lines. A test takes the expected lines with
 * expect_log(), oldest first. At the end of the test, each remaining line at warning level or above
 * fails it.
 */
class LogTest : public ::testing::Test
{
  protected:
    LogTest();
    ~LogTest() override;

    void TearDown() override;

    /* Takes the oldest line, which must have exactly this level and text. */
    void expect_log(GLogLevelFlags level, const std::string &text);

    /* Fails the test if any line is left. */
    void expect_no_log();

    /* Drops all lines. */
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
