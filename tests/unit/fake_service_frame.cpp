#include "fake_service_frame.h"

#include "service_frame.h"

void sonobrik_quit_main_loop(gint32 code)
{
    quits.push_back(code);
}

void sonobrik_feed_watchdog()
{
    watchdog_feeds++;
}
