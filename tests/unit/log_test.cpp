#include "log_test.h"

LogTest::LogTest() : previous_handler(g_log_set_default_handler(record, this)) {}

LogTest::~LogTest()
{
    g_log_set_default_handler(previous_handler, nullptr);
}

void LogTest::record(const gchar *domain, GLogLevelFlags level, const gchar *message,
                     gpointer user_data)
{
    if (level & G_LOG_LEVEL_DEBUG) {
        return;
    }
    auto *test = static_cast<LogTest *>(user_data);
    const std::lock_guard guard(test->lock);
    const std::string origin = domain ? std::string(domain) + ": " : "";
    test->lines.push_back({level, origin + message});
}

void LogTest::TearDown()
{
    const std::lock_guard guard(lock);
    constexpr int heavy = G_LOG_LEVEL_CRITICAL | G_LOG_LEVEL_WARNING | LOG_LEVEL_ERROR;
    for (const Line &line : lines) {
        if (line.level & heavy) {
            ADD_FAILURE() << "unexpected log line at level " << line.level << ": " << line.text;
        }
    }
}

void LogTest::expect_log(GLogLevelFlags level, const std::string &text)
{
    const std::lock_guard guard(lock);
    if (lines.empty()) {
        ADD_FAILURE() << "nothing was logged instead of: " << text;
        return;
    }
    EXPECT_EQ(lines.front().level, level) << lines.front().text;
    EXPECT_EQ(lines.front().text, text);
    lines.pop_front();
}

void LogTest::expect_no_log()
{
    const std::lock_guard guard(lock);
    for (const Line &line : lines) {
        ADD_FAILURE() << "unexpected log line at level " << line.level << ": " << line.text;
    }
    lines.clear();
}

void LogTest::clear_log()
{
    const std::lock_guard guard(lock);
    lines.clear();
}
