#include "failover/wan_clients.h"

#include <unistd.h>

#include "shared/command.h"
#include "shared/system_util.h"

bool end_dhcp_client(const char *process_name, const char *pid_file) {
    int pid = get_pid_by_name2(process_name);
    if (pid <= 0) return false;
    shell::run("end_dhcp_client", "kill -SIGUSR2 %d", {shell::number(pid)});
    sleep(1);
    shell::run("end_dhcp_client", "kill -9 %d", {shell::number(pid)});
    sleep(1);
    shell::run("end_dhcp_client", "rm -f %s", {shell::trusted(pid_file)});
    return true;
}

void end_pppd() {
    int pid = get_pid_by_name2("pppd");
    if (pid > 0) {
        shell::run("end_pppd", "kill -SIGTERM %d", {shell::number(pid)});
        unlink("/tmp/ppp/options");
    }
    sleep(2);
}
