#pragma once

/*
 * Runs the tests of a program. Arguments that GoogleTest does not take name modules: only the tests
 * in the files test_MODULE.cpp run, unless --gtest_filter already chooses. Returns the exit status.
 */
int run_tests(int argc, char **argv);
