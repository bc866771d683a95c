#pragma once

/*
 * Clip records ("groups"). A record is one configured clip: its number, the location of its file,
 * its name, a free-form type and its media metadata. Each record is stored in a file of its own and
 * is in memory only while a request uses it. Called on the main thread.
 *
 * Every operation accepts a null record and returns its failure value for it.
 */

#include <glib.h>
#include <jansson.h>

struct SonobrikGroup {
    gint32 index;     /* the record's number; it names the file and is not stored in it */
    char *location;   /* owned; path of the media file; null only while the record is being built */
    char *name;       /* owned; the clip's name for users */
    char *type;       /* owned; a word that the client chose; not interpreted */
    json_t *metadata; /* owned; normally an object; null if the file has none */
};

/*
 * The longest texts, in bytes, and the largest metadata, in bytes of compact JSON, of a record that
 * is saved or listed. A location has the kernel's limit for paths.
 */
inline constexpr size_t SONOBRIK_GROUP_LOCATION_MAX = 4095;
inline constexpr size_t SONOBRIK_GROUP_NAME_MAX = 255;
inline constexpr size_t SONOBRIK_GROUP_TYPE_MAX = 255;
inline constexpr size_t SONOBRIK_GROUP_METADATA_MAX = 16384;

/* The properties that clients can name. */
enum SonobrikGroupProperty {
    SONOBRIK_GROUP_LOCATION = 0,
    SONOBRIK_GROUP_NAME = 1,
    SONOBRIK_GROUP_TYPE = 2,
    SONOBRIK_GROUP_PROPERTY_COUNT = 3,
};

/* Returns the index, or -1 for null. */
gint32 sonobrik_group_get_index(const SonobrikGroup *group);

/* These return a field that the record owns. */
const char *sonobrik_group_get_location(const SonobrikGroup *group);
const char *sonobrik_group_get_name(const SonobrikGroup *group);
const char *sonobrik_group_get_type(const SonobrikGroup *group);
json_t *sonobrik_group_get_media_metadata(const SonobrikGroup *group);

/* Drops the metadata and sets the field to null. */
void sonobrik_group_clear_media_metadata(SonobrikGroup *group);

/*
 * These replace one text by a copy of `text`, in memory only. They return false if `text` is null.
 * Setting the location also replaces the metadata, which described the old file, by an empty
 * object.
 */
bool sonobrik_group_set_location(SonobrikGroup *group, const char *text);
bool sonobrik_group_set_name(SonobrikGroup *group, const char *text);
bool sonobrik_group_set_type(SonobrikGroup *group, const char *text);

/* Returns true if location, name and type are all set; empty strings count. */
bool sonobrik_group_valid_parameter(const SonobrikGroup *group);

/*
 * Returns null if the record can be saved and listed: the bus can carry every text of it, its
 * metadata included, and none of them exceeds its limit. Otherwise returns the reason, such as "has
 * a name of more than 255 bytes".
 */
const char *sonobrik_group_get_fault(const SonobrikGroup *group);

/* Frees the record. Does nothing for null. */
void sonobrik_group_free(SonobrikGroup *group);

G_DEFINE_AUTOPTR_CLEANUP_FUNC(SonobrikGroup, sonobrik_group_free)

/*
 * Writes the record's file. Returns false with a log line, and leaves the file as it was, if a text
 * is missing, the record has a fault, the index is invalid, or the file cannot be written.
 */
bool sonobrik_group_save(SonobrikGroup *group);

/* Returns the record that the file contains; the caller owns it. Returns null with a log line. */
SonobrikGroup *sonobrik_group_from_file(const char *path);

/*
 * Finds the property with this name, which is case-sensitive, and stores its number in `*value`.
 * Returns false with a warning for an unknown name.
 */
bool sonobrik_group_get_property_enum(const char *name, SonobrikGroupProperty *value);

/* Returns the name of a property, or null if `value` is not the number of one. */
const char *sonobrik_group_get_property_name(guint value);

/*
 * These return the value of a property, which the record owns, or null. An unknown or null name is
 * logged.
 */
const char *sonobrik_group_get_property(const SonobrikGroup *group, const char *name);
const char *sonobrik_group_get_enum_property(const SonobrikGroup *group, guint value);

/*
 * These set a property and save the record. They return false with a warning on failure; if only
 * saving failed, the record has the new value and the file the old one.
 */
bool sonobrik_group_set_property(SonobrikGroup *group, const char *name, const char *text);
bool sonobrik_group_set_enum_property(SonobrikGroup *group, guint value, const char *text);

/*
 * Creates and saves a record. On entry `*index` is the wanted index, or -1 for the lowest free one;
 * on success it holds the index used. Null texts count as empty. Returns false with a warning if
 * the index is taken or invalid, the store is full, or the file cannot be written.
 */
bool sonobrik_group_create_group(gint32 *index, const char *location, const char *name,
                                 const char *type);

/* Deletes a record's file. Returns false with a log line if it is missing or cannot be removed. */
bool sonobrik_group_remove_group(gint32 index);

/* Loads one record; the caller owns it. Returns null if it does not exist or cannot be loaded. */
SonobrikGroup *sonobrik_group_from_index(gint32 index);

/*
 * Loads all records, in the order of the directory. Leaves out, with a warning, each file that
 * cannot be loaded or whose record has a fault. Returns null if there are none; free the list with
 * sonobrik_group_release_parameter_list().
 */
GSList *sonobrik_group_get_parameter_list();

/* Frees a list with its records and sets the caller's variable to null. */
void sonobrik_group_release_parameter_list(GSList **list);
