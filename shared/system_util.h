// Process lookup shared by the router's service routines.
#pragma once

// Pid of the first listed process whose line mentions `name`: above 0 when found, -1 when not
// found, 0 when the process list could not be read.
int get_pid_by_name2(const char *name);
