// The failover daemon: start-up, the monitor process and the controller process.
#pragma once

#include <string_view>
#include <vector>

// Detaches, writes the pid file, sets the start-up keys, creates the FIFO and forks into the
// controller (parent) and the monitor (child). Returns only when start-up failed.
int failover_main();

// ---- Monitor ----------------------------------------------------------------------------

struct MonitorState {
    int tick = 0;      // 1..90, wraps to 1 after 90 (starts at 0)
    int lte_wait = 0;  // consecutive ticks of a pending LTE connect
};

// One tick of the monitor: link sample, reachability test, LTE supervision, then 1 s of sleep.
void monitor_tick(MonitorState &state);

// The monitor process: ticks forever.
[[noreturn]] void monitor_loop();

// ---- Controller -------------------------------------------------------------------------

// The three compound actions of the controller.
void switch_to_lte();
void switch_to_ethernet();
void restart_lte();

// Acts on one event code, printing its line first; unknown codes do nothing.
void handle_failover_event(char code);

// The tokens of one read batch (text up to its first NUL): the runs between ":" separators;
// consecutive separators make no empty token.
std::vector<std::string_view> split_failover_tokens(std::string_view data);

// Splits one read batch into tokens at ":" and acts on each token's first character.
void handle_failover_batch(const char *data);

// The controller process: reads the FIFO and acts, forever.
[[noreturn]] void controller_loop();
