#include "event_template.h"

#include "log_test.h"

namespace
{

using EventTemplateTest = LogTest;

bool set_nothing(Event *, void *)
{
    return true;
}

TEST_F(EventTemplateTest, TakesAKeyOnce)
{
    EventTemplate *made = event_template_new();
    EXPECT_TRUE(event_template_add_key(made, "a", EVENT_VALUE_INT));
    EXPECT_FALSE(event_template_add_key(made, "a", EVENT_VALUE_INT));
    EXPECT_FALSE(event_template_add_key_value(made, "a", "x", EVENT_VALUE_STRING));
    event_template_free(made);
}

TEST_F(EventTemplateTest, RefusesKeysThatTheBusCannotCarry)
{
    EventTemplate *made = event_template_new();
    EXPECT_FALSE(event_template_add_key(made, "", EVENT_VALUE_INT));
    EXPECT_FALSE(event_template_add_key(made, "\xe9", EVENT_VALUE_INT));
    EXPECT_FALSE(event_template_add_key(made, "\xef\xbf\xbe", EVENT_VALUE_INT));
    event_template_free(made);
}

TEST_F(EventTemplateTest, RefusesUnknownTypes)
{
    EventTemplate *made = event_template_new();
    EXPECT_FALSE(event_template_add_key(made, "a", static_cast<EventValueType>(3)));
    EXPECT_FALSE(event_template_add_key_value(made, "a", "x", static_cast<EventValueType>(0)));
    event_template_free(made);
}

TEST_F(EventTemplateTest, RefusesToDescribeAKeyThatItDoesNotHave)
{
    EventTemplate *made = event_template_new();
    event_template_add_key(made, "a", EVENT_VALUE_INT);
    EXPECT_FALSE(event_template_set_namespace(made, "b", "x"));
    EXPECT_FALSE(event_template_set_nice_names(made, "b", "x", "x"));
    EXPECT_FALSE(event_template_add_tag(made, "b", "x"));
    EXPECT_FALSE(event_template_set_state_key(made, "b", set_nothing, nullptr));
    event_template_free(made);
}

TEST_F(EventTemplateTest, TakesOneTagForAKey)
{
    EventTemplate *made = event_template_new();
    event_template_add_key(made, "a", EVENT_VALUE_INT);
    EXPECT_FALSE(event_template_add_tag(made, "a", ""));
    EXPECT_TRUE(event_template_add_tag(made, "a", "x"));
    EXPECT_FALSE(event_template_add_tag(made, "a", "y"));
    event_template_free(made);
}

TEST_F(EventTemplateTest, AnswersNullArgumentsWithFalse)
{
    EventTemplate *made = event_template_new();
    const int number = 1;
    EXPECT_FALSE(event_template_add_key(nullptr, "a", EVENT_VALUE_INT));
    EXPECT_FALSE(event_template_add_key(made, nullptr, EVENT_VALUE_INT));
    EXPECT_FALSE(event_template_add_key_value(nullptr, "a", &number, EVENT_VALUE_INT));
    EXPECT_FALSE(event_template_add_key_value(made, nullptr, &number, EVENT_VALUE_INT));
    EXPECT_FALSE(event_template_add_key_value(made, "a", nullptr, EVENT_VALUE_INT));
    EXPECT_TRUE(event_template_add_key(made, "a", EVENT_VALUE_INT)) << "added by a failure";
    EXPECT_FALSE(event_template_set_namespace(nullptr, "a", "x"));
    EXPECT_FALSE(event_template_set_namespace(made, nullptr, "x"));
    EXPECT_FALSE(event_template_set_namespace(made, "a", nullptr));
    EXPECT_FALSE(event_template_set_nice_names(nullptr, "a", "x", "x"));
    EXPECT_FALSE(event_template_set_nice_names(made, nullptr, "x", "x"));
    EXPECT_FALSE(event_template_add_tag(nullptr, "a", "x"));
    EXPECT_FALSE(event_template_add_tag(made, nullptr, "x"));
    EXPECT_FALSE(event_template_add_tag(made, "a", nullptr));
    EXPECT_FALSE(event_template_set_state_key(nullptr, "a", set_nothing, nullptr));
    EXPECT_FALSE(event_template_set_state_key(made, nullptr, set_nothing, nullptr));
    EXPECT_FALSE(event_template_set_state_key(made, "a", nullptr, nullptr));
    event_template_free(made);
}

TEST_F(EventTemplateTest, FreesNothingForNull)
{
    event_template_free(nullptr);
    event_release(nullptr);
}

} // namespace
