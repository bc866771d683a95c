#pragma once

/* The document that describes the features to the on-screen controls service. Main thread only. */

/*
 * Returns the document, compact JSON with the clips as they are stored now, as a new text to be
 * freed with free(); null with a log line.
 */
char *osc_document_new();
