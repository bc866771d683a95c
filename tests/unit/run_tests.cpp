#include "run_tests.h"

#include <cstdio>
#include <filesystem>
#include <gtest/gtest.h>
#include <string>

namespace
{

/* Returns a filter that chooses the tests of `module`; empty if there are none. */
std::string filter_of(const std::string &module)
{
    std::string filter;
    const testing::UnitTest &all = *testing::UnitTest::GetInstance();
    for (int i = 0; i < all.total_test_suite_count(); i++) {
        const testing::TestSuite &suite = *all.GetTestSuite(i);
        for (int j = 0; j < suite.total_test_count(); j++) {
            const testing::TestInfo &test = *suite.GetTestInfo(j);
            if (std::filesystem::path(test.file()).stem() == "test_" + module) {
                filter += std::string(suite.name()) + "." + test.name() + ":";
            }
        }
    }
    return filter;
}

} // namespace

int run_tests(int argc, char **argv)
{
    testing::InitGoogleTest(&argc, argv);
    std::string filter;
    for (int i = 1; i < argc; i++) {
        const std::string tests = filter_of(argv[i]);
        if (tests.empty()) {
            fprintf(stderr, "There is no test in test_%s.cpp.\n", argv[i]);
            return 1;
        }
        filter += tests;
    }
    /* A filter that only leaves out tests, as in GTEST_FILTER=-A.B, applies to the modules too. */
    const std::string given = GTEST_FLAG_GET(filter);
    if (!filter.empty() && (given == "*" || given.starts_with('-'))) {
        GTEST_FLAG_SET(filter, filter + (given == "*" ? "" : given));
    }
    return RUN_ALL_TESTS();
}
