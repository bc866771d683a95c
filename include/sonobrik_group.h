#pragma once

/*
 * Clip records ("groups"): one configured clip each, with its number, the location of its file, its
 * name, a free-form type and its media metadata. The records' files are the store; a record is in
 * memory only while a request handles it. Called on the main thread.
 *
 * A null record is answered with the failure value.
 */

#include <glib.h>
#include <jansson.h>

struct SonobrikGroup {
    gint32 index;     /* the record's number, which names its file and is not stored in it */
    char *location;   /* owned; path of the media file; null only while the record is built */
    char *name;       /* owned; what users call the clip */
    char *type;       /* owned; a word of the client's, never interpreted */
    json_t *metadata; /* owned; normally an object; null when the file holds none */
};

/* The properties that the records have by name. */
enum SonobrikGroupProperty {
    SONOBRIK_GROUP_LOCATION = 0,
    SONOBRIK_GROUP_NAME = 1,
    SONOBRIK_GROUP_TYPE = 2,
    SONOBRIK_GROUP_PROPERTY_COUNT = 3,
};

/* Returns the index, -1 for null. */
gint32 sonobrik_group_get_index(const SonobrikGroup *group);

/* Borrowed from the record. */
const char *sonobrik_group_get_location(const SonobrikGroup *group);
const char *sonobrik_group_get_name(const SonobrikGroup *group);
const char *sonobrik_group_get_type(const SonobrikGroup *group);
json_t *sonobrik_group_get_media_metadata(const SonobrikGroup *group);

/* Drops the metadata. */
void sonobrik_group_clear_media_metadata(SonobrikGroup *group);

/*
 * Replace one text by a copy of `text`, in memory only. Return false for null. A new location makes
 * the metadata an empty object: it described the old file, and is computed anew when it is asked
 * for.
 */
bool sonobrik_group_set_location(SonobrikGroup *group, const char *text);
bool sonobrik_group_set_name(SonobrikGroup *group, const char *text);
bool sonobrik_group_set_type(SonobrikGroup *group, const char *text);

/* Has the record its three texts, be they empty? */
bool sonobrik_group_valid_parameter(const SonobrikGroup *group);

/* Null does nothing. */
void sonobrik_group_free(SonobrikGroup *group);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(SonobrikGroup, sonobrik_group_free)

/*
 * Writes the record's file. Returns false, with a log line, and leaves the file as it was, when a
 * text is missing or is none that the bus can carry, the index is invalid, or the file cannot be
 * written.
 */
bool sonobrik_group_save(SonobrikGroup *group);

/* Returns the record that the file holds, owned by the caller; null with a log line. */
SonobrikGroup *sonobrik_group_from_file(const char *path);

/* Finds the property of this name; case matters. Returns false, with a warning, for an unknown one.
 */
bool sonobrik_group_get_property_enum(const char *name, SonobrikGroupProperty *value);

/* Returns the name of a property, null for a value that is none. */
const char *sonobrik_group_get_property_name(guint value);

/* The value of a property, borrowed from the record, or null; an unknown name is logged. */
const char *sonobrik_group_get_property(const SonobrikGroup *group, const char *name);
const char *sonobrik_group_get_enum_property(const SonobrikGroup *group, guint value);

/*
 * Sets a property and saves the record. Returns false, with a warning, when one of the two fails;
 * the record then may hold the new value, the file holds the old.
 */
bool sonobrik_group_set_property(SonobrikGroup *group, const char *name, const char *text);
bool sonobrik_group_set_enum_property(SonobrikGroup *group, guint value, const char *text);

/*
 * Creates and saves a record. `*index` asks for an index, or with -1 for the lowest that is free,
 * and receives it. Null texts are taken as empty. Returns false, with a warning, when the index is
 * taken or invalid, the store is full or cannot be written.
 */
bool sonobrik_group_create_group(gint32 *index, const char *location, const char *name,
                                 const char *type);

/* Deletes a record's file. Returns false, with a log line, when there is none or it stays. */
bool sonobrik_group_remove_group(gint32 index);

/* Loads one record, owned by the caller; null if there is none. */
SonobrikGroup *sonobrik_group_from_index(gint32 index);

/*
 * Loads all records, in the order in which the directory yields their files. A file that cannot be
 * loaded is logged and left out. Null if there are none; free the list with
 * sonobrik_group_release_parameter_list().
 */
GSList *sonobrik_group_get_parameter_list();

/* Frees a list with its records and sets the caller's variable to null. */
void sonobrik_group_release_parameter_list(GSList **list);
