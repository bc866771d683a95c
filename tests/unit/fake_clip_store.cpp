/* A fake clip store for tests of methods that do not use it: every new clip is number 7. */

#include "sonobrik_group.h"
#include "sonobrik_group_metadata.h"
#include "sonobrik_osc.h"
#include "sonobrik_param_events.h"

bool sonobrik_group_create_group(gint32 *index, const char *, const char *, const char *)
{
    *index = 7;
    return true;
}

char *sonobrik_group_get_metadata()
{
    return g_strdup("[]");
}

bool sonobrik_param_events_register_new(gint32, const char *, const char *, const char *)
{
    return true;
}

bool sonobrik_osc_update()
{
    return true;
}
