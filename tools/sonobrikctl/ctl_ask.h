#pragma once

/* Questions to the user. */

#include <string>

/* Returns true if there is a terminal to ask on. */
bool ctl_ask_possible();

/* Asks `question` on the terminal. Returns true for "y" and "yes", and false for anything else. */
bool ctl_ask(const std::string &question);
