#pragma once

/* Returns freed memory to the system. Main thread only. */

/*
 * Returns the memory that is free by then to the system, 10 s after the first of several calls.
 * Call it after work that needed much memory for a moment: the C library keeps freed memory as long
 * as something in use lies behind it. Does nothing with a C library that cannot return it.
 */
void memory_trim_later();
