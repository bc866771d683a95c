#pragma once

/* Returns free memory to the system. Main thread only. */

/*
 * Makes the main loop return free memory to the system after 10 s; further calls until then have no
 * effect. Call it after work that needed much memory for a moment: the C library keeps freed memory
 * as long as something behind it is in use. Does nothing with a C library other than glibc.
 */
void memory_trim_later();
