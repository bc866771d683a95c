#pragma once

/* A fake media discovery, which returns the descriptions that a test sets. */

#include <glib.h>
#include <map>
#include <string>
#include <vector>

/* The description of a file. */
struct Description {
    const char *media_types = R"(["audio/x-wav"])"; /* JSON; null if there are none */
    gint64 size = 5;
    gint64 duration = 50;
};

struct FakeDiscovery {
    std::map<std::string, Description> found; /* by path; no other file can be described */
    std::vector<std::string> inspected;
    std::vector<int> feeds;          /* of the watchdog, before each inspection */
    std::vector<GHashTable *> memos; /* with which each inspection was asked for */
    int handles = 0;                 /* records that are not freed yet */
};

extern FakeDiscovery discovery;

/* The metadata of the default description, as a record's file may hold it, and as it is written. */
inline constexpr const char *VALID = R"({"mediaTypes":["audio/x-wav"],"size":5,"duration":50})";
inline constexpr const char *VALID_FILE_METADATA = "{\n"
                                                   "    \"mediaTypes\": [\n"
                                                   "      \"audio/x-wav\"\n"
                                                   "    ],\n"
                                                   "    \"size\": 5,\n"
                                                   "    \"duration\": 50\n"
                                                   "  }";
