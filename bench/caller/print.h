#pragma once

/* JSON on the standard output. */

#include <cstdint>
#include <vector>

using Times = std::vector<uint64_t>;

/* Prints a list of numbers. */
void print_list(const Times &times);

/* Prints a list of lists of numbers. */
void print_lists(const std::vector<Times> &lists);
