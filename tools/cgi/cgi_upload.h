#pragma once

/*
 * A recording that a browser sends, from its first byte until it is in place. Until then it is in
 * the folder ".uploads" of the clip folder: the daemon can check a file there, although its unit
 * hides most other folders from it, and a move into place needs no copy. No wildcard finds the file
 * there, because the daemon's user may not list that folder.
 */

#include <glib.h>
#include <string>

#include "cgi_folder.h"
#include "cgi_result.h"

/* An upload. One at a time may exist in a process. */
class CgiUpload
{
  public:
    CgiUpload() = default;
    CgiUpload(const CgiUpload &) = delete;
    CgiUpload &operator=(const CgiUpload &) = delete;

    /* Removes the file unless it was put in place. */
    ~CgiUpload();

    /*
     * Reads `length` bytes from `body_fd` into a new file that everybody may read. A signal that
     * ends the process removes the file. Also removes files that earlier uploads left behind.
     */
    CgiOutcome receive(int body_fd, gint64 length);

    /* Returns where the daemon finds the file before it is in place. */
    std::string get_location() const;

    /* Returns the name of the format, such as "a FLAC", if it is a known one that the daemon never
     * plays, or "". */
    std::string get_refused_format() const;

    /*
     * Moves the file into the clip folder, under `name` or, if that is taken, under a name with a
     * number. Sets `location`. Never overwrites a file.
     */
    CgiOutcome place(const std::string &name, std::string *location);

    /* Moves the file to the place of the regular file at `location`, which it replaces. */
    CgiOutcome replace(const std::string &location);

    /* Removes the file at `location` if it is still the one that place() moved there. */
    void remove_placed(const std::string &location) const;

  private:
    CgiOutcome create();
    CgiOutcome fill(int body_fd, gint64 length) const;
    CgiOutcome finish() const;

    CgiDescriptor clips;
    CgiDescriptor folder; /* ".uploads" */
    CgiDescriptor file;
    std::string name; /* empty while there is no file in `folder` */
};
