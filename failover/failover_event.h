// FailoverEvent tokens: an event code character followed by ":", appended to "/tmp/f_fifo".
#pragma once

inline constexpr const char *kFailoverFifo = "/tmp/f_fifo";

// Appends the two-byte token for `code` to the FIFO by open, write, close, so a token is never
// split. False (after the perror line) when the FIFO could not be opened.
bool write_failover_event(char code);
