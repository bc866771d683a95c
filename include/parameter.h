#pragma once

/* Reads the device's parameters. Call these operations on the main thread. */

/*
 * Returns the value of the parameter with this full dotted name as a new string; free it with
 * g_free(). Returns null and logs a warning if the parameter cannot be read. Returns null for a
 * null name.
 */
char *get_parameter(const char *name);

/*
 * Returns true if the parameter can be read and its value is `expected`; false for a null argument.
 */
bool parameter_equals(const char *name, const char *expected);
