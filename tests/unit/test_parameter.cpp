#include "parameter.h"

#include <optional>
#include <string>

#include "log_test.h"
#include "platform/param.h"

namespace
{

constexpr unsigned int DEFAULT_FLAGS = 0x5A;

struct FakeParam {
    std::optional<std::string> value;
    int error_code = 0;
    int calls = 0;
    std::string name;
    unsigned int flags = 0;
    int error_code_before = -1;
};

FakeParam fake;

} // namespace

void param_reset_options(ParamOptions *options)
{
    options->flags = DEFAULT_FLAGS;
}

char *param_get(const char *name, const ParamOptions *options, int *error_code)
{
    fake.calls++;
    fake.name = name;
    fake.flags = options->flags;
    fake.error_code_before = *error_code;
    if (fake.error_code != 0) {
        *error_code = fake.error_code;
    }
    return fake.value ? g_strdup(fake.value->c_str()) : nullptr;
}

namespace
{

class Parameter : public LogTest
{
  protected:
    Parameter()
    {
        fake = FakeParam();
    }

    static std::string get(const char *name)
    {
        g_autofree char *value = get_parameter(name);
        return value ? value : "(null)";
    }
};

TEST_F(Parameter, ReadsTheValueOfTheName)
{
    fake.value = "100";
    EXPECT_EQ(get("root.SonoBrik.MaxGroups"), "100");
    EXPECT_EQ(fake.name, "root.SonoBrik.MaxGroups");
    EXPECT_EQ(fake.calls, 1);
    expect_no_log();
}

TEST_F(Parameter, PassesDefaultOptionsAndNoError)
{
    fake.value = "100";
    get("root.Name");
    EXPECT_EQ(fake.flags, DEFAULT_FLAGS);
    EXPECT_EQ(fake.error_code_before, 0);
}

TEST_F(Parameter, EmptyValueIsAValue)
{
    fake.value = "";
    EXPECT_EQ(get("root.Name"), "");
    expect_no_log();
}

TEST_F(Parameter, FailureIsLoggedWithNameAndCode)
{
    fake.error_code = 2;
    EXPECT_EQ(get("root.Name"), "(null)");
    expect_log(G_LOG_LEVEL_WARNING, "Failed to get parameter = root.Name, errcode = 2");
    expect_no_log();
}

TEST_F(Parameter, NegativeCodeIsAFailure)
{
    fake.value = "100";
    fake.error_code = -5;
    EXPECT_EQ(get("root.Name"), "(null)");
    expect_log(G_LOG_LEVEL_WARNING, "Failed to get parameter = root.Name, errcode = -5");
}

TEST_F(Parameter, MissingValueWithoutACodeIsAFailure)
{
    EXPECT_EQ(get("root.Name"), "(null)");
    expect_log(G_LOG_LEVEL_WARNING, "Failed to get parameter = root.Name, errcode = 0");
    expect_no_log();
}

TEST_F(Parameter, ValueThatComesWithACodeIsNotUsed)
{
    fake.value = "100";
    fake.error_code = 5;
    EXPECT_EQ(get("root.Name"), "(null)");
    expect_log(G_LOG_LEVEL_WARNING, "Failed to get parameter = root.Name, errcode = 5");
    expect_no_log();
}

TEST_F(Parameter, WithoutANameIsNotRead)
{
    fake.value = "100";
    EXPECT_EQ(get(nullptr), "(null)");
    EXPECT_FALSE(parameter_equals(nullptr, "100"));
    EXPECT_EQ(fake.calls, 0);
    expect_no_log();
}

TEST_F(Parameter, EqualsTheSameText)
{
    fake.value = "yes";
    EXPECT_TRUE(parameter_equals("root.Name", "yes"));
    EXPECT_EQ(fake.name, "root.Name");
    EXPECT_EQ(fake.calls, 1);
    expect_no_log();
}

TEST_F(Parameter, DoesNotEqualAnotherText)
{
    fake.value = "yes";
    EXPECT_FALSE(parameter_equals("root.Name", "Yes"));
    EXPECT_FALSE(parameter_equals("root.Name", "yes "));
    EXPECT_FALSE(parameter_equals("root.Name", "ye"));
    EXPECT_FALSE(parameter_equals("root.Name", ""));
}

TEST_F(Parameter, DoesNotEqualNull)
{
    fake.value = "";
    EXPECT_FALSE(parameter_equals("root.Name", nullptr));
}

TEST_F(Parameter, ThatCannotBeReadEqualsNothingNotEvenNull)
{
    fake.error_code = 2;
    EXPECT_FALSE(parameter_equals("root.Name", nullptr));
    expect_log(G_LOG_LEVEL_WARNING, "Failed to get parameter = root.Name, errcode = 2");
    expect_no_log();
}

} // namespace
