// Process lookup shared by the router's service routines.
#pragma once

// Pid of the first listed process whose line mentions `name`: above 0 when found, -1 when not
// found, 0 when the process list could not be read.
int get_pid_by_name2(const char *name);

// Reads one line of the process list for `name`: true when it is that process's line (it
// mentions `name` and is not the grep of the lookup); `pid` is then its leading number, left
// as it was when the line starts with none that fits an int.
bool pid_from_ps_line(const char *line, const char *name, int &pid);
