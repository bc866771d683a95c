#pragma once

/* Adding, replacing, renaming and removing clips. */

#include "cgi_request.h"
#include "cgi_result.h"

/* Adds the file that `body_fd` sends as a clip. The detail of the outcome names its number. */
CgiOutcome cgi_change_add(const CgiRequest &request, int body_fd);

/*
 * Puts the file that `body_fd` sends in the place of a clip's file. The clip keeps its number, its
 * name and its location.
 */
CgiOutcome cgi_change_replace(const CgiRequest &request, int body_fd);

CgiOutcome cgi_change_rename(const CgiRequest &request);

/* Removes the clip and, if the request says so, its file, unless another clip has the same file. */
CgiOutcome cgi_change_remove(const CgiRequest &request);
