#pragma once

/* A store of clip records on disk, of the test's own. */

#include <string>
#include <vector>

#include "fake_platform.h"
#include "sonobrik_group.h"
#include "temp_dir.h"

/*
 * An empty folder "clip_data", in which the store's modules keep the records while the object
 * lives. The bound is what fake_platform.parameter says when it is asked for first, 10 records
 * unless the test says otherwise; it is not known yet, as at the start of the daemon.
 */
class StoreFolder
{
  public:
    StoreFolder();

    /* Makes the file `name` in the folder hold `text`. */
    static void write(const std::string &name, const std::string &text);

    /* What the file `name` in the folder holds; "" if there is none. */
    static std::string read(const std::string &name);

    /* The names in the folder that begin with "M", in the order in which the folder yields them. */
    static std::vector<std::string> names();

  private:
    WorkingTempDir folder;
};

/* A file of a record to the letter, with `metadata` as it is written at that depth. */
std::string record_file(const std::string &location, const std::string &name,
                        const std::string &type, const std::string &metadata = "{}");

/* A new record with copies of the texts, null ones among them, and with metadata or null. */
SonobrikGroup *new_record(int index, const char *location, const char *name, const char *type,
                          json_t *metadata = nullptr);

/* The compact text of a JSON value, which stays the caller's; "null pointer" for none. */
std::string compact(const json_t *value);

/* While it lives, files are opened as by a user who is not root. */
class PlainUser
{
  public:
    PlainUser();
    ~PlainUser();
    PlainUser(const PlainUser &) = delete;
    PlainUser &operator=(const PlainUser &) = delete;
};
