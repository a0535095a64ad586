// Restart of the platform's time client after a WAN comes up.
#pragma once

// Restarts the time client, at most once a day while the clock is synchronised in LTE WAN mode.
// Always 0.
int restart_timesync();
