/* The floor of a round trip: answers "OK" to each call. */

#include "service.h"

namespace
{

int answer(sd_bus_message *message, void *, sd_bus_error *)
{
    const char *text = nullptr;
    const int r = sd_bus_message_read(message, "s", &text);
    return r < 0 ? r : sd_bus_reply_method_return(message, "s", "OK");
}

const sd_bus_vtable table[] = {
    SD_BUS_VTABLE_START(SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("StopPlayingClip", "s", "s", answer, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_METHOD("SupportedFile", "s", "s", answer, SD_BUS_VTABLE_UNPRIVILEGED),
    SD_BUS_VTABLE_END,
};

} // namespace

int main(int argc, char **argv)
{
    return floor_serve(argc, argv, table);
}
