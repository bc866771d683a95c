#include "../../src/notify/event_templates.h"

#include <algorithm>
#include <string>
#include <vector>

#include "log_test.h"

/* A fake template; `steps` records the calls on it. */
struct EventTemplate {
    int number;
};

namespace
{

using Steps = std::vector<std::string>;

/* The calls of the fakes, in order; except for "new", each names its template. */
Steps steps;
int templates_made;
int templates_alive;

/* The steps with these numbers fail; they count from 0, in the order of the calls. */
std::vector<size_t> failing_steps;

EventStateInitialiser initialiser;
void *initialiser_data;

bool perform(const std::string &step)
{
    const size_t number = steps.size();
    steps.push_back(step);
    return std::find(failing_steps.begin(), failing_steps.end(), number) == failing_steps.end();
}

std::string text_or_none(const char *text)
{
    return text ? text : "none";
}

std::string value_text(const void *value, EventValueType type)
{
    return type == EVENT_VALUE_STRING ? static_cast<const char *>(value)
                                      : std::to_string(*static_cast<const int *>(value));
}

class EventTemplates : public LogTest
{
  protected:
    void SetUp() override
    {
        steps.clear();
        failing_steps.clear();
        templates_made = 0;
        templates_alive = 0;
        initialiser = nullptr;
        initialiser_data = &steps;
    }

    void TearDown() override
    {
        EXPECT_EQ(templates_alive, 0);
        LogTest::TearDown();
    }
};

const Steps playing_steps = {
    "new",
    "value topic0 4 SonoBrik",
    "namespace topic0 tnsvesk",
    "names topic0 none, Sono Brik",
    "value topic1 4 Playing",
    "namespace topic1 tnsvesk",
    "names topic1 none, Playing",
    "value AudioOutput 1 3",
    "names AudioOutput Audio Output, none",
    "tag AudioOutput onvif-source",
    "value AudioDeviceId 1 2",
    "names AudioDeviceId Audio Device Id, none",
    "value AudioOutputId 1 7",
    "names AudioOutputId Audio Output Id, none",
    "key Playing 2",
    "names Playing Playing Status, none",
    "tag Playing onvif-data",
    "state Playing",
};

const Steps currently_playing_steps = {
    "new",
    "value topic0 4 SonoBrik",
    "namespace topic0 tnsvesk",
    "names topic0 none, Sono Brik",
    "value topic1 4 CurrentlyPlaying",
    "namespace topic1 tnsvesk",
    "names topic1 none, Currently Playing Sono Brik",
    "value AudioOutput 1 3",
    "names AudioOutput Audio Output, none",
    "tag AudioOutput onvif-source",
    "value AudioDeviceId 1 2",
    "names AudioDeviceId Audio Device Id, none",
    "value AudioOutputId 1 7",
    "names AudioOutputId Audio Output Id, none",
    "key FileName 4",
    "names FileName File Name, none",
    "tag FileName onvif-data",
};

/* The failure of one step of building one kind of event. */
struct Failure {
    const char *kind;
    EventTemplate *(*make)(const AudioOutputIds &output);
    const Steps &steps;
    size_t number;
};

std::vector<Failure> all_failures()
{
    std::vector<Failure> failures;
    for (size_t number = 0; number < playing_steps.size(); number++) {
        failures.push_back({"Playing", event_templates_new_playing, playing_steps, number});
    }
    for (size_t number = 0; number < currently_playing_steps.size(); number++) {
        failures.push_back({"CurrentlyPlaying", event_templates_new_currently_playing,
                            currently_playing_steps, number});
    }
    return failures;
}

class FailingStep : public EventTemplates, public ::testing::WithParamInterface<Failure>
{
};

INSTANTIATE_TEST_SUITE_P(Steps, FailingStep, ::testing::ValuesIn(all_failures()),
                         [](const auto &info) {
                             return info.param.kind + std::to_string(info.param.number);
                         });

} // namespace

EventTemplate *event_template_new()
{
    if (!perform("new")) {
        return nullptr;
    }
    templates_alive++;
    return new EventTemplate{++templates_made};
}

void event_template_free(EventTemplate *event_template)
{
    if (event_template) {
        templates_alive--;
        delete event_template;
    }
}

bool event_template_add_key_value(EventTemplate *event_template, const char *key, const void *value,
                                  EventValueType type)
{
    EXPECT_NE(event_template, nullptr);
    return perform(std::string("value ") + key + " " + std::to_string(type) + " " +
                   value_text(value, type));
}

bool event_template_add_key(EventTemplate *event_template, const char *key, EventValueType type)
{
    EXPECT_NE(event_template, nullptr);
    return perform(std::string("key ") + key + " " + std::to_string(type));
}

bool event_template_set_namespace(EventTemplate *event_template, const char *key,
                                  const char *name_space)
{
    EXPECT_NE(event_template, nullptr);
    return perform(std::string("namespace ") + key + " " + name_space);
}

bool event_template_set_nice_names(EventTemplate *event_template, const char *key,
                                   const char *key_nice_name, const char *value_nice_name)
{
    EXPECT_NE(event_template, nullptr);
    return perform(std::string("names ") + key + " " + text_or_none(key_nice_name) + ", " +
                   text_or_none(value_nice_name));
}

bool event_template_add_tag(EventTemplate *event_template, const char *key, const char *tag)
{
    EXPECT_NE(event_template, nullptr);
    return perform(std::string("tag ") + key + " " + tag);
}

bool event_template_set_state_key(EventTemplate *event_template, const char *key,
                                  EventStateInitialiser state_initialiser, void *user_data)
{
    EXPECT_NE(event_template, nullptr);
    initialiser = state_initialiser;
    initialiser_data = user_data;
    return perform(std::string("state ") + key);
}

/* A fake event that records the last value set. */
struct Event {
    std::string set;
    bool result;
};

bool event_value_set(Event *event, const char *key, const void *value)
{
    event->set = std::string(key) + " " + std::to_string(*static_cast<const gboolean *>(value));
    return event->result;
}

TEST_F(EventTemplates, BuildsThePlayingEventKeyByKey)
{
    g_autoptr(EventTemplate) built = event_templates_new_playing({2, 2, 7});
    EXPECT_NE(built, nullptr);
    EXPECT_EQ(steps, playing_steps);
}

TEST_F(EventTemplates, BuildsTheCurrentlyPlayingEventKeyByKey)
{
    g_autoptr(EventTemplate) built = event_templates_new_currently_playing({2, 2, 7});
    EXPECT_NE(built, nullptr);
    EXPECT_EQ(steps, currently_playing_steps);
}

TEST_F(EventTemplates, CountsOutputsFromOne)
{
    g_autoptr(EventTemplate) built = event_templates_new_playing({0, 0, 0});
    EXPECT_NE(built, nullptr);
    EXPECT_EQ(steps[7], "value AudioOutput 1 1");
}

TEST_F(EventTemplates, PassesIdsUnchanged)
{
    g_autoptr(EventTemplate) built = event_templates_new_currently_playing({0, -1, 12});
    EXPECT_NE(built, nullptr);
    EXPECT_EQ(steps[10], "value AudioDeviceId 1 -1");
    EXPECT_EQ(steps[12], "value AudioOutputId 1 12");
}

TEST_F(EventTemplates, LogsNothingOnSuccess)
{
    g_autoptr(EventTemplate) playing = event_templates_new_playing({0, 0, 0});
    g_autoptr(EventTemplate) currently = event_templates_new_currently_playing({0, 0, 0});
    EXPECT_NE(playing, nullptr);
    EXPECT_NE(currently, nullptr);
    expect_no_log();
}

TEST_F(EventTemplates, StartsAsNotPlaying)
{
    g_autoptr(EventTemplate) built = event_templates_new_playing({0, 0, 0});
    EXPECT_NE(built, nullptr);
    ASSERT_NE(initialiser, nullptr);
    EXPECT_EQ(initialiser_data, nullptr);
    Event event = {"", true};
    EXPECT_TRUE(initialiser(&event, initialiser_data));
    EXPECT_EQ(event.set, "Playing 0");
}

TEST_F(EventTemplates, ReportsAStateThatCannotBeSet)
{
    g_autoptr(EventTemplate) built = event_templates_new_playing({0, 0, 0});
    EXPECT_NE(built, nullptr);
    ASSERT_NE(initialiser, nullptr);
    Event event = {"", false};
    EXPECT_FALSE(initialiser(&event, initialiser_data));
}

TEST_P(FailingStep, IsRetriedOnceAndFailsTheTemplate)
{
    const Failure &failure = GetParam();
    failing_steps = {failure.number, failure.number + 1};
    EXPECT_EQ(failure.make({2, 2, 7}), nullptr);
    Steps expected(failure.steps.begin(), failure.steps.begin() + failure.number + 1);
    expected.push_back(failure.steps[failure.number]);
    EXPECT_EQ(steps, expected);
    expect_log(G_LOG_LEVEL_WARNING, "Internal error when setting up events: NULL/FALSE from\"0\"");
    expect_no_log();
}

/* The fixture checks that the template is freed in this case too. */
TEST_P(FailingStep, FailsTheTemplateEvenIfTheRetrySucceeds)
{
    const Failure &failure = GetParam();
    failing_steps = {failure.number};
    EXPECT_EQ(failure.make({2, 2, 7}), nullptr);
    EXPECT_EQ(steps.size(), failure.number + 2);
    expect_log(G_LOG_LEVEL_WARNING, "Internal error when setting up events: NULL/FALSE from\"1\"");
    expect_no_log();
}
