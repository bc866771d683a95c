#pragma once

/*
 * What the caller can measure; main.cpp describes the arguments, which begin after the name of the
 * mode. Each prints a JSON document and returns an exit status.
 */

/* Makes each call COUNT times, in turn. With -r, removes the record that AddClip created in FOLDER.
 * Prints a list of times for each call. */
int mode_calls(int argc, char **argv);

/*
 * Makes each call, which starts a clip, COUNT times, in turn, and stops the clip when the card
 * plays it. Prints for each call the list of times from the call to the card's first sample.
 */
int mode_play(int argc, char **argv);

/*
 * Starts each program COUNT times, in turn, and ends it. Prints for each the times from process
 * start until it has all NAMEs ("names"), the resident memory in KiB after IDLE-MS more
 * ("resident"), the times from the first call, which starts a clip with OPTIONS, to the card's
 * first sample ("first"), and those of a second clip, IDLE-MS after the first one ("later").
 */
int mode_start(int argc, char **argv);

/*
 * Lets CALLERS connections repeat the call for SECONDS, each after the answer to its last call.
 * Prints the number of calls, the seconds and the times.
 */
int mode_load(int argc, char **argv);

/*
 * Lets each player start a clip COUNT times, in turn, and stops it. A PLAYER is "bus|OPTIONS" for
 * the daemon, "mpd|FILE|SOCKET" for mpd, "run|COMMAND" for a program that plays by itself, or
 * "run|COMMAND|STOP-COMMAND" for a client of a service. Prints for each the list of times until the
 * card's first sample.
 */
int mode_peers(int argc, char **argv);
