#pragma once

/* What a request has the daemon do. Each opens a connection of its own. */

#include <glib.h>
#include <string>
#include <vector>

#include "cgi_request.h"
#include "cgi_result.h"

/* Plays the file of the clip that the request names, and no other file; answers when it plays. */
CgiOutcome cgi_daemon_play(const CgiRequest &request);

/* Stops what plays, if anything does. */
CgiOutcome cgi_daemon_stop();

/* Whether a clip's file is there, as far as the web server's user can see. */
enum CgiFile {
    CGI_FILE_THERE, /* or not to be seen by this user */
    CGI_FILE_GONE,
};

/* Looks for the file at `location`, a clip's. */
CgiFile cgi_daemon_find_file(const char *location);

/* A stored clip. */
struct CgiClip {
    gint32 number;
    std::string name;     /* empty if it has none */
    std::string location; /* empty if it has no file */
    gint64 duration_ms;   /* negative if it is not known */
    CgiFile file;
};

/* An audio output. */
struct CgiOutput {
    gint32 number; /* as `audiooutput` names it */
    bool playing;
    std::string file; /* path of what plays or played last; empty if nothing did */
};

/* The outputs and what plays on them. */
struct CgiNow {
    bool is_known = false; /* false: the platform keeps no events on the bus */
    std::vector<CgiOutput> outputs;
};

/* What the page shows. */
struct CgiState {
    std::vector<CgiClip> clips; /* sorted by number */
    CgiNow now;
};

/* Asks for what plays now. */
CgiOutcome cgi_daemon_read_now(CgiNow *now);

/* Asks for all that the page shows; what the clips' files hold may take 5 s for each new clip. */
CgiOutcome cgi_daemon_read_state(CgiState *state);

/* Returns what plays now in a sentence for people. */
std::string cgi_now_describe(const CgiNow &now);
