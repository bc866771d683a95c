#pragma once

/* Keeps the memory small that the C library has in reserve. Main thread only. */

/*
 * Makes all threads allocate from one pool. Each clip has threads of its own, and with a pool for
 * each, what one thread freed does not serve the next one. Call it before any other thread exists.
 */
void memory_trim_share_pool();

/*
 * Makes the main loop return free memory to the system after 10 s; further calls until then have no
 * effect. Call it after work that needed much memory for a moment: the C library keeps freed memory
 * as long as something behind it is in use. Does nothing with a C library other than glibc.
 */
void memory_trim_later();
