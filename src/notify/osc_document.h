#pragma once

/* The document that describes our features to the on-screen controls service. Main thread only. */

/*
 * Returns the document, compact JSON with the clips that are stored now, as a new string; free it
 * with free(). Returns null with a log line on failure.
 */
char *osc_document_new();
