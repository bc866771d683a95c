#include "sonobrik_parameters.h"

#include "group_dbus.h"

namespace
{

bool sonobrik_group_setup()
{
    return sonobrik_group_dbus_setup();
}

void sonobrik_group_teardown()
{
    sonobrik_group_dbus_teardown();
}

} // namespace

bool sonobrik_parameters_setup()
{
    return sonobrik_group_setup();
}

void sonobrik_parameters_teardown()
{
    sonobrik_group_teardown();
}
