#pragma once

/* Limits how much freed memory the C library keeps for itself. Main thread only. */

/*
 * Makes all threads allocate from one pool. Each clip starts new threads. If each had its own pool,
 * they could not reuse the memory that earlier threads have freed. Call it before any other thread
 * exists.
 */
void memory_trim_share_pool();

/*
 * Makes the main loop return free memory to the system after 10 s; further calls until then have no
 * effect. Call it after work that needed much memory for a short time: the C library keeps freed
 * memory as long as something behind it is in use. Does nothing with a C library other than glibc.
 */
void memory_trim_later();
