// The failover daemon takes no arguments: it always detaches and runs until killed.
#include "failover/failover_conn.h"

int main() { return failover_main(); }
