#pragma once

/* A private store of clip records on disk. */

#include <string>
#include <vector>

#include "fake_platform.h"
#include "sonobrik_group.h"
#include "temp_dir.h"

/*
 * Makes an empty folder "clip_data", in which the code under test keeps the records while the
 * object lives. The bound is read from fake_platform.parameter at first use, as after the start of
 * the daemon; it is 10 records unless the test changes it.
 */
class StoreFolder
{
  public:
    StoreFolder();

    /* Writes `text` to the file `name` in the folder. */
    static void write(const std::string &name, const std::string &text);

    /* Returns the content of the file `name` in the folder, or "" if there is no such file. */
    static std::string read(const std::string &name);

    /* Returns the names in the folder that begin with "M", in the order of the folder. */
    static std::vector<std::string> names();

  private:
    WorkingTempDir folder;
};

/* Returns the exact content of a record's file; `metadata` is already indented for it. */
std::string record_file(const std::string &location, const std::string &name,
                        const std::string &type, const std::string &metadata = "{}");

/* Returns a new record with copies of the texts. Takes `metadata`. All but `index` may be null. */
SonobrikGroup *new_record(int index, const char *location, const char *name, const char *type,
                          json_t *metadata = nullptr);

/* Returns a JSON value as compact text, or "null pointer" for null. */
std::string compact(const json_t *value);

/* While it lives, files are opened without root's rights, even if root runs the test. */
class UnprivilegedFileAccess
{
  public:
    UnprivilegedFileAccess();
    ~UnprivilegedFileAccess();
    UnprivilegedFileAccess(const UnprivilegedFileAccess &) = delete;
    UnprivilegedFileAccess &operator=(const UnprivilegedFileAccess &) = delete;
};
