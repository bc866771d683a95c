#pragma once

/*
 * Runs the tests of a program and returns the exit status. Arguments that are not GoogleTest's are
 * names of modules: only the tests in the files test_MODULE.cpp run, unless --gtest_filter is
 * given.
 */
int run_tests(int argc, char **argv);
