#include "sonobrik_group.h"

namespace
{

struct Property {
    const char *name;
    bool (*set)(SonobrikGroup *group, const char *text);
    const char *(*get)(const SonobrikGroup *group);
};

/* In the order of SonobrikGroupProperty. */
constexpr Property properties[SONOBRIK_GROUP_PROPERTY_COUNT] = {
    {"Location", sonobrik_group_set_location, sonobrik_group_get_location},
    {"Name", sonobrik_group_set_name, sonobrik_group_get_name},
    {"Type", sonobrik_group_set_type, sonobrik_group_get_type},
};

/* Does the same as sonobrik_group_get_property_enum(), and accepts a null name. */
bool find_property(const char *name, SonobrikGroupProperty *value)
{
    if (!name) {
        g_warning("%s%s was called with invalid arguments", "", "sonobrik_group_get_property_enum");
        return false;
    }
    return sonobrik_group_get_property_enum(name, value);
}

} // namespace

bool sonobrik_group_get_property_enum(const char *name, SonobrikGroupProperty *value)
{
    for (int i = 0; i < SONOBRIK_GROUP_PROPERTY_COUNT; i++) {
        if (value && g_strcmp0(properties[i].name, name) == 0) {
            *value = static_cast<SonobrikGroupProperty>(i);
            return true;
        }
    }
    g_warning("%sInvalid property '%s'", "", name);
    return false;
}

const char *sonobrik_group_get_property_name(guint value)
{
    return value < SONOBRIK_GROUP_PROPERTY_COUNT ? properties[value].name : nullptr;
}

const char *sonobrik_group_get_property(const SonobrikGroup *group, const char *name)
{
    SonobrikGroupProperty value;
    return find_property(name, &value) ? sonobrik_group_get_enum_property(group, value) : nullptr;
}

const char *sonobrik_group_get_enum_property(const SonobrikGroup *group, guint value)
{
    if (!group || value >= SONOBRIK_GROUP_PROPERTY_COUNT) {
        return nullptr;
    }
    return properties[value].get(group);
}

bool sonobrik_group_set_property(SonobrikGroup *group, const char *name, const char *text)
{
    SonobrikGroupProperty value;
    return find_property(name, &value) && sonobrik_group_set_enum_property(group, value, text);
}

bool sonobrik_group_set_enum_property(SonobrikGroup *group, guint value, const char *text)
{
    if (!group || !text || value >= SONOBRIK_GROUP_PROPERTY_COUNT ||
        !properties[value].set(group, text)) {
        g_warning("%s%s failed to set/update with the new property value", "",
                  "sonobrik_group_set_enum_property");
        return false;
    }
    if (!sonobrik_group_save(group)) {
        g_warning("%s%s Failed to update parameter", "", "sonobrik_group_set_enum_property");
        return false;
    }
    return true;
}
