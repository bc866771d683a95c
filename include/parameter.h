#pragma once

/* The device's parameters. Called on the main thread. */

/*
 * Returns the value of the parameter with this full dotted name as a new string, to be freed with
 * g_free(), or null with a warning.
 */
char *get_parameter(const char *name);

/* Can the parameter be read, and is it `expected`? */
bool parameter_equals(const char *name, const char *expected);
