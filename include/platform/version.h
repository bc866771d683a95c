#pragma once

/*
 * Version of the platform interface, which all headers in this folder form. It changes when an
 * operation, a record or a rule changes so that existing libraries no longer work. The library
 * states in its pkg-config file which version it implements, and the daemon's build compares.
 */
#define VESK_PLATFORM_VERSION 1
