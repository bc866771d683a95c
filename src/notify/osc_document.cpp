#include "osc_document.h"

#include "autoptr.h"
#include "bus_budget.h"
#include "log_level.h"
#include "sonobrik_group.h"

namespace
{

/* Adds the clips to the values that the user can choose from. Returns false on failure. */
bool add_clips(json_t *values, GSList *groups)
{
    BusBudgetArray budget;
    for (GSList *node = groups; node; node = node->next) {
        auto *group = static_cast<SonobrikGroup *>(node->data);
        g_autoptr(json_t) value =
            json_pack("{s:s, s:i}", "niceName", sonobrik_group_get_name(group), "value",
                      sonobrik_group_get_index(group));
        if (!value) {
            return false;
        }
        if (!bus_budget_take_value(&budget, values, value)) {
            bus_budget_report(node, "the list for the on-screen controls");
            return true;
        }
        if (json_array_append_new(values, g_steal_pointer(&value)) != 0) {
            return false;
        }
    }
    return true;
}

/* Returns a new reference to the array of all stored clips; null with a log line. */
json_t *create_clip_values()
{
    g_autoptr(json_t) values = json_array();
    GSList *groups = sonobrik_group_get_parameter_list();
    const bool added = add_clips(values, groups);
    sonobrik_group_release_parameter_list(&groups);
    if (!added) {
        log_error("%sFailed to add clip to parameters.", "");
        return nullptr;
    }
    return g_steal_pointer(&values);
}

/* Returns a new reference to the object of the "clip" parameter; null with a log line. */
json_t *create_clip_parameter()
{
    g_autoptr(json_t) values = create_clip_values();
    if (!values) {
        return nullptr;
    }
    json_t *parameter = json_pack("{s{s:s,s:s,s:O}}", "clip", "niceName", "Clip", "type",
                                  "multiOptions", "values", values);
    if (!parameter) {
        log_error("%sFailed to pack json object for clip parameters.", "");
    }
    return parameter;
}

bool add_clip_parameter(json_t *action, const char *info)
{
    json_t *parameter = create_clip_parameter();
    if (!parameter) {
        log_error("%sFailed to generate clip parameters for '%s' action.", "", info);
        return false;
    }
    if (json_object_set_new(action, "parameters", parameter) != 0) {
        log_error("%sFailed to add clip parameters to '%s' action.", "", info);
        return false;
    }
    return true;
}

/* Returns a new reference to the object of one action; null with a log line. */
json_t *sonobrik_osc_create_action(const char *info, const char *name, const char *nice_name,
                                   const char *request_url, bool with_clip_parameter)
{
    g_autoptr(json_t) action =
        json_pack("{s:[s],s:s,s:s,s:s,s:s,s:s}", "user", "operator", "info", info, "name", name,
                  "niceName", nice_name, "requestType", "GET", "requestURL", request_url);
    if (!action) {
        log_error("%sFailed to pack json object for '%s' action.", "", info);
        return nullptr;
    }
    if (with_clip_parameter && !add_clip_parameter(action, info)) {
        return nullptr;
    }
    return g_steal_pointer(&action);
}

} // namespace

char *osc_document_new()
{
    g_autoptr(json_t) play =
        sonobrik_osc_create_action("Select clip", "sonobrik", "Select clip",
                                   "/vesk-cgi/sonobrik.cgi?action=play&clip={clip}", true);
    if (!play) {
        log_error("%sFailed to generate json object for play action.", "");
        return nullptr;
    }
    g_autoptr(json_t) stop = sonobrik_osc_create_action(
        "Stop clip", "stopclip", "Stop clip", "/vesk-cgi/sonobrik.cgi?action=stop", false);
    if (!stop) {
        log_error("%sFailed to generate json object for stop action.", "");
        return nullptr;
    }
    g_autoptr(json_t) document =
        json_pack("{s:s,s:s,s:[],s:[O,O]}", "name", "playClip", "niceName", "Play sono brik",
                  "featureGroups", "features", play, stop);
    if (!document) {
        log_error("%sFailed to pack json object for all actions.", "");
        return nullptr;
    }
    return json_dumps(document, JSON_COMPACT);
}
