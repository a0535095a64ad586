# The simulated router's root, sourced by sim/run: a directory laid out like a router's file
# system, entered by every router process through nsenter into one mount, PID and network
# namespace (the "router" network namespace) whose first process holds them open.
#
#   /bin        busybox and links for all its applets: ping, ps, route, ifconfig, killall,
#               udhcpc, sh... come first on PATH, as on a router
#   /usr/bin    the built programs: failover, failover-run, nvram, failover-linkwatch,
#               failover-lte; /sbin/vesk_service; /usr/sbin/udhcpc is busybox
#   /usr/sbin   dnsmasq, nft and conntrack of this machine (from /host/usr, read-only)
#   /opt/sim    the modem: the D-Bus system bus launcher, the ModemManager mock and its control
#   /var/run/dbus   the router's system bus (system_bus_socket, the default address); /run
#               links to /var/run
#   /tmp /var/run /var/lib/failover (the configuration store) /dev /etc   the router's own
#   /proc       the router's PID namespace; /sys its network namespace
#
# The kernel has no "/proc/wan_status": failover-linkwatch keeps /var/run/wan_status holding
# eth0's carrier and the daemon reads it through FAILOVER_WAN_STATUS_FILE.
# shellcheck shell=bash disable=SC2154  # work, out, build, fast, sim_dir, source_dir: globals of sim/run

router_pid=""
router_root=""

# Runs a command inside the router, with a router's small environment.
rtr() {
    nsenter -t "$router_pid" -m -n -p -r -w /bin/busybox env -i \
        PATH=/bin:/sbin:/usr/bin:/usr/sbin HOME=/ "$@"
}

make_router_root() {
    local root=$1 build=$2 fast=$3 p d
    router_root=$root
    mkdir -p "$root"/{bin,sbin,usr/bin,usr/sbin,host/usr,proc,sys,dev,etc,tmp,var/run,var/log,opt/sim} \
             "$root/var/lib/failover"
    chmod 1777 "$root/tmp"
    mount --bind -o ro /usr "$root/host/usr"
    cp "$build/deps/busybox-static/bin/busybox" "$root/bin/busybox"
    chroot "$root" /bin/busybox --install -s /bin
    for p in failover failover-run nvram failover-linkwatch failover-lte; do
        cp "$build/$p" "$root/usr/bin/$p"
    done
    cp "$sim_dir"/modem/{private-bus,modemmanager.py,modem-control} "$root/opt/sim/"
    cp "$build/vesk_service" "$root/sbin/vesk_service"
    ln -sf /bin/busybox "$root/usr/sbin/udhcpc"
    for d in lib lib64 libexec share; do
        [ -d "/usr/$d" ] && ln -s "/host/usr/$d" "$root/usr/$d"
    done
    ln -s usr/lib "$root/lib"
    # /run and /var/run are one, as on Debian: D-Bus clients look for the system bus in either.
    ln -s var/run "$root/run"
    [ -d /usr/lib64 ] && ln -s usr/lib64 "$root/lib64"
    for p in dnsmasq nft conntrack; do
        ln -s "/host$(command -v "$p")" "$root/usr/sbin/$p"
    done
    if [ "$fast" != 1 ]; then
        cp "$build/tests/testroot/libsleep_shim.so" "$root/opt/sim/libsleep_shim.so"
    fi
    printf '127.0.0.1\tlocalhost\n%s\ttarget.example\n' "$TARGET" >"$root/etc/hosts"
    printf 'hosts: files\n' >"$root/etc/nsswitch.conf"
    printf 'nameserver 127.0.0.1\n' >"$root/etc/resolv.conf"
    printf 'root:x:0:0:root:/:/bin/sh\nnobody:x:65534:65534:nobody:/:/bin/false\n' >"$root/etc/passwd"
    printf 'root:x:0:\nnogroup:x:65534:\n' >"$root/etc/group"
    : >"$root/dev/console"
    chroot "$root" /bin/busybox sh -c '
        mknod -m 666 /dev/null c 1 3
        mknod -m 666 /dev/zero c 1 5
        mknod -m 666 /dev/random c 1 8
        mknod -m 666 /dev/urandom c 1 9'
    # The router's settings: failover between DHCP on eth0 and LTE on rm_usb0, probing the target.
    cat >"$root/etc/sim-nvram" <<EOF
wwan_wan_type=2
wan_proto=dhcp
wan_ifname=eth0
wan1_ifname=rm_usb0
lan_ifname=br0
lan_ipaddr=192.168.1.1
lan_netmask=255.255.255.0
wan_hwaddr_sel=0
et1macaddr=02:53:49:4d:00:01
wan_dns_sel=0
wwan_failover_ping_ip=$TARGET
rip_enable=0
wla_wds_enable=0
wlg_wds_enable=0
EOF

    # The holder: first process of the router's PID namespace. It mounts /proc and /sys from
    # inside and then only reaps the orphans that daemons leave behind.
    ip netns exec router unshare --mount --pid --fork --propagation private /bin/bash -c '
        mount -t proc proc "$1/proc"
        mount -t sysfs sysfs "$1/sys"
        exec chroot "$1" /bin/busybox sh -c "trap \"exit 0\" TERM; while :; do sleep 3600 & wait; done"
    ' holder "$root" 2>>"$out/holder.log" &
    bg_pids+=($!)
    local outer=$!
    for _ in $(seq 100); do
        router_pid=$(cat "/proc/$outer/task/$outer/children" 2>/dev/null | awk '{ print $1 }')
        if [ -n "$router_pid" ] && [ "$(readlink "/proc/$router_pid/root")" = "$root" ]; then
            return 0
        fi
        sleep 0.05
    done
    echo "sim/run: the router's namespaces did not come up" >&2
    return 1
}

# Runs COMMAND inside the router until it succeeds (true) or SECONDS pass (false).
wait_router() {
    local seconds=$1
    shift
    local deadline=$((SECONDS + seconds))
    until rtr "$@" >/dev/null 2>&1; do
        [ $SECONDS -lt $deadline ] || return 1
        sleep 0.1
    done
}

# How the modem's next connects end: with a DHCP lease on rm_usb0 after the attach delay, or
# refused as by a modem without service.
modem_works() {
    rtr /host/usr/bin/python3 /opt/sim/modem-control connect-result dhcp \
        "{\"interface\": \"rm_usb0\", \"delay\": $1}"
}
modem_fails() {
    rtr /host/usr/bin/python3 /opt/sim/modem-control connect-result refuse \
        '{"error": "org.freedesktop.ModemManager1.Error.MobileEquipment.NoNetwork", "message": "No network"}'
}

# The router's boot: settings, forwarding, the DNS forwarder, the link watcher, the system bus
# with ModemManager (the mock) and its modem, the LTE manager, and the Ethernet WAN started as
# the router's start-up scripts do before failover.
start_router() {
    local attach=$1 fail=$2
    rtr nvram load /etc/sim-nvram
    rtr sh -c 'echo 1 >/proc/sys/net/ipv4/ip_forward'
    echo "options single-request" >"$router_root/tmp/resolv.conf"
    rtr dnsmasq --conf-file=/dev/null --interface=br0 --resolv-file=/tmp/resolv.conf --no-hosts \
        --bogus-priv --user=root --pid-file=/var/run/dnsmasq.pid --log-facility=/var/log/dnsmasq.log
    rtr failover-linkwatch eth0 /var/run/wan_status >"$out/linkwatch.log" 2>&1 &
    # The bus lives as long as the router: its PID namespace ends it.
    rtr /opt/sim/private-bus /var/run/dbus --parent none >/dev/null ||
        { echo "sim/run: the router's D-Bus system bus did not start" >&2; return 1; }
    rtr /host/usr/bin/python3 -m dbusmock --system --template /opt/sim/modemmanager.py \
        2>&1 | stamp >"$out/modemmanager.log" &
    rtr /host/usr/bin/python3 /opt/sim/modem-control wait ||
        { echo "sim/run: ModemManager (the mock) did not start (see $out/modemmanager.log)" >&2; return 1; }
    if [ "$fail" = 1 ]; then modem_fails; else modem_works "$attach"; fi
    rtr /host/usr/bin/python3 /opt/sim/modem-control add-modem >/dev/null
    rtr failover-lte 2>&1 | stamp >"$out/lte.log" &
    wait_router 10 sh -c 'test -S /tmp/cgi-2-sys && [ "$(nvram get module_ready)" = 1 ]' ||
        { echo "sim/run: the LTE manager did not start or found no modem (see $out/lte.log)" >&2; return 1; }
    rtr FAILOVER_WAN_STATUS_FILE=/var/run/wan_status failover-run Ether_connection_start \
        >"$out/boot.log" 2>&1
    wait_router 20 sh -c '[ "$(nvram get wan_ipaddr)" != 0.0.0.0 ] && ip route | grep -q "^default.*eth0"' ||
        { echo "sim/run: eth0 got no lease at boot (see $out/boot.log)" >&2; return 1; }
}

start_daemon() {
    local preload=/usr/libexec/coreutils/libstdbuf.so
    local env=(FAILOVER_WAN_STATUS_FILE=/var/run/wan_status _STDBUF_O=L)
    if [ "$fast" != 1 ]; then
        preload="$preload /opt/sim/libsleep_shim.so"
        env+=(SLEEP_SHIM_DIVISOR="$fast")
    fi
    # Line-buffered standard output (stdbuf's library) so that every console line gets the
    # time it was written.
    rtr "${env[@]}" LD_PRELOAD="$preload" failover > >(stamp >"$out/console.log") 2>&1
    wait_router 10 test -s /var/run/failover.pid
}


# The daemon's two processes as this PID namespace sees them.
daemon_pids() {
    local p
    for p in /proc/[0-9]*; do
        [ "$(cat "$p/comm" 2>/dev/null)" = failover ] && echo "${p#/proc/}"
    done
    return 0
}

# CPU time and memory of both daemon processes over the idle window just run.
daemon_usage() {
    local window=$1 hz pid role ns rss hwm
    hz=$(getconf CLK_TCK)
    echo "idle window: $window s of daemon time, run ${fast}x accelerated ($(scaled "$window") s real);"
    echo "CPU time is the daemon processes' own (user + system), not the pings and shells they start"
    for pid in $(daemon_pids); do
        # The monitor is the controller's forked child.
        role=controller
        [ "$(cat "/proc/$(awk '{ print $4 }' "/proc/$pid/stat")/comm" 2>/dev/null)" = failover ] && role=monitor
        # Nanoseconds on the CPU; the clock ticks of stat are too coarse for an idle daemon.
        ns=$(awk '{ print $1 }' "/proc/$pid/schedstat" 2>/dev/null || true)
        [ -n "$ns" ] || ns=$(awk -v hz="$hz" '{ print ($14 + $15) * 1e9 / hz }' "/proc/$pid/stat")
        rss=$(awk '/^VmRSS/ { print $2 }' "/proc/$pid/status")
        hwm=$(awk '/^VmHWM/ { print $2 }' "/proc/$pid/status")
        awk -v r="$role" -v ns="$ns" -v w="$window" -v rss="$rss" -v hwm="$hwm" 'BEGIN {
            cpu = ns / 1e9
            printf "%-10s cpu %.3f s in the window, %.2f s per idle hour (scaled by 3600/%d), rss %d KiB, peak rss %d KiB\n",
                   r, cpu, cpu * 3600 / w, w, rss, hwm }'
    done
}

collect_router_files() {
    local dir=$1/router
    mkdir -p "$dir"
    cp "$router_root/tmp/resolv.conf" "$router_root/dev/console" "$dir/" 2>/dev/null || true
    cp "$router_root/tmp/platform_trace.jsonl" "$dir/" 2>/dev/null || true
    cp "$router_root/var/log/dnsmasq.log" "$dir/" 2>/dev/null || true
    NVRAM_FILE=$router_root/var/lib/failover/nvram "$build/nvram" show >"$dir/nvram.txt" 2>&1 || true
    ip netns exec router conntrack -L >"$dir/conntrack.txt" 2>&1 || true
    ip netns exec router nft list ruleset >"$dir/nft.txt" 2>&1 || true
}

stop_router() {
    [ -n "$router_pid" ] || return 0
    kill -KILL "$router_pid" 2>/dev/null || true
    router_pid=""
}
