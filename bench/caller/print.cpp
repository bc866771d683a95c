#include "print.h"

#include <cstdio>

void print_list(const Times &times)
{
    const char *separator = "";
    printf("[");
    for (const uint64_t time : times) {
        printf("%s%llu", separator, static_cast<unsigned long long>(time));
        separator = ", ";
    }
    printf("]");
}

void print_lists(const std::vector<Times> &lists)
{
    const char *separator = "";
    printf("[");
    for (const Times &list : lists) {
        printf("%s", separator);
        print_list(list);
        separator = ",\n";
    }
    printf("]\n");
}
