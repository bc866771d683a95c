#pragma once

/* The calls to the daemon. Each function opens its own connection to the bus, so a process calls
 * one of them. */

#include <glib.h>
#include <string>
#include <vector>

#include "cgi_request.h"
#include "cgi_result.h"

/* Starts the clip with the requested number. If the request says so, stops what is playing first,
 * but not if the file cannot be played or the daemon does not report the output. Plays that clip's
 * file and no other file. Returns when the clip is playing. */
CgiOutcome cgi_daemon_play(const CgiRequest &request);

/* Stops playback. Succeeds if nothing is playing. */
CgiOutcome cgi_daemon_stop();

/* A stored clip. */
struct CgiClip {
    gint32 number;
    std::string name;     /* empty if the clip has no name */
    std::string location; /* empty if the clip has no file */
    gint64 duration_ms;   /* negative if unknown */
    bool is_file_missing; /* false if the web server's user cannot find out */
};

/* An audio output. */
struct CgiOutput {
    gint32 number;          /* the `audiooutput` of a play request */
    std::string name;       /* of the device, escaped to be shown; empty if unknown */
    bool unplugged = false; /* the device is known, but the daemon cannot play on it */
    bool playing = false;
    std::string file;       /* path of the current or last file; empty if there was none */
    std::string title;      /* what users call the file; empty: the file's name */
    gint64 elapsed_ms = -1; /* for how long the file has been playing; negative if unknown */
};

/* The outputs and what is playing on them. */
struct CgiNow {
    bool is_known = false;          /* false if the platform publishes no event objects */
    std::vector<CgiOutput> outputs; /* sorted by number */

    /* Differs if the clips may have changed. Cheaper than listing them: it is made of the times at
     * which the folders of the clips' records and files were changed. Empty if they are not known.
     */
    std::string revision;
};

/* The content of the page. */
struct CgiState {
    std::vector<CgiClip> clips; /* sorted by number */
    CgiNow now;
};

/* Reads what is playing. */
CgiOutcome cgi_daemon_read_now(CgiNow *now);

/* Reads the content of the page. The daemon probes new clips first, which takes up to 5 s each. */
CgiOutcome cgi_daemon_read_state(CgiState *state);

/* Returns what users call an output: "Hall (output 1)", "Hall (output 1, unplugged)" or "output 1".
 */
std::string cgi_output_describe(const CgiOutput &output);

/* Returns a sentence for users that says what is playing. */
std::string cgi_now_describe(const CgiNow &now);
