# The simulation's networks, sourced by sim/run inside its own mount, PID and network
# namespaces. Addresses:
#
#   lan       lan0 192.168.1.100/24, default via the router
#   router    br0 192.168.1.1/24 (port lan1); eth0 and rm_usb0 get their addresses by DHCP
#   isp       isp-rtr 100.64.1.1/24 and .2 (DHCP server, two DNS servers), isp-up 198.18.1.1/30
#   lte       lte-rtr 10.64.0.1/24 and .2 (DHCP server, two DNS servers), lte-up 198.18.2.1/30
#   internet  inet-isp 198.18.1.2/30, inet-lte 198.18.2.2/30, the daemon's probe target
#             203.0.113.10 and the server the LAN host pings, 203.0.113.20
#
# The LAN host pings a server of its own, not the daemon's probe address: while the daemon
# tests Ethernet it pins a host route to its probe address through eth0, which would take the
# LAN's packets to that address out of eth0 without NAT.
#
# Cable pulled: the ISP's end of the router's eth0 goes down, so eth0 loses its carrier.
# Upstream dead: the ISP's link to the Internet goes down while eth0 keeps its link.
# shellcheck shell=bash disable=SC2154  # work, out, build, fast: globals of sim/run

readonly TARGET=203.0.113.10
readonly SERVER=203.0.113.20
readonly ISP_DNS="100.64.1.1 100.64.1.2"
readonly LTE_DNS="10.64.0.1 10.64.0.2"
readonly NAMESPACES="lan router isp lte internet"

bg_pids=()

# /run becomes a tmpfs of this mount namespace, so that "ip netns" keeps its files there and
# the machine's /run stays as it was; /proc shows the simulation's own processes.
make_private_run() {
    mount -t tmpfs -o mode=0755,size=256m sim-run /run
    mount -t proc proc /proc
    mkdir -p /run/netns "$1"
    ip link set lo up
}

in_ns() {
    local ns=$1
    shift
    ip netns exec "$ns" "$@"
}

make_topology() {
    local ns
    for ns in $NAMESPACES; do
        ip netns add "$ns"
        ip -n "$ns" link set lo up
    done
    ip link add lan0 netns lan type veth peer name lan1 netns router
    ip link add eth0 netns router type veth peer name isp-rtr netns isp
    ip link add rm_usb0 netns router type veth peer name lte-rtr netns lte
    ip link add isp-up netns isp type veth peer name inet-isp netns internet
    ip link add lte-up netns lte type veth peer name inet-lte netns internet

    local args
    while read -r ns args; do
        # shellcheck disable=SC2086
        ip -n "$ns" $args
    done <<'EOF'
lan addr add 192.168.1.100/24 dev lan0
lan link set lan0 up
lan route add default via 192.168.1.1
router link add br0 type bridge
router link set lan1 master br0
router link set lan1 up
router addr add 192.168.1.1/24 dev br0
router link set br0 up
isp addr add 100.64.1.1/24 dev isp-rtr
isp addr add 100.64.1.2/24 dev isp-rtr
isp link set isp-rtr up
isp addr add 198.18.1.1/30 dev isp-up
isp link set isp-up up
isp route add default via 198.18.1.2
lte addr add 10.64.0.1/24 dev lte-rtr
lte addr add 10.64.0.2/24 dev lte-rtr
lte link set lte-rtr up
lte addr add 198.18.2.1/30 dev lte-up
lte link set lte-up up
lte route add default via 198.18.2.2
internet addr add 198.18.1.2/30 dev inet-isp
internet addr add 198.18.2.2/30 dev inet-lte
internet link set inet-isp up
internet link set inet-lte up
internet addr add 203.0.113.10/32 dev lo
internet addr add 203.0.113.20/32 dev lo
internet route add 100.64.1.0/24 via 198.18.1.1
internet route add 10.64.0.0/24 via 198.18.2.1
EOF
    for ns in isp lte; do
        in_ns "$ns" sysctl -qw net.ipv4.ip_forward=1
    done
}

# A DHCP server (Debian's udhcpd) and a DNS server (dnsmasq) for the ISP or the LTE network.
start_network_servers() {
    local ns=$1 ifname=$2 net=$3 dns=$4 dir=$work/$1
    mkdir -p "$dir"
    cat >"$dir/udhcpd.conf" <<EOF
interface $ifname
start $net.100
end $net.199
lease_file $dir/udhcpd.leases
pidfile $dir/udhcpd.pid
option subnet 255.255.255.0
option router ${dns%% *}
option dns $dns
option lease 3600
EOF
    : >"$dir/udhcpd.leases"
    # -a 100: the address is offered after a 100 ms ARP check instead of 2 s.
    ip netns exec "$ns" udhcpd -f -a 100 "$dir/udhcpd.conf" >"$out/$ns-udhcpd.log" 2>&1 &
    bg_pids+=($!)
    ip netns exec "$ns" dnsmasq -k --conf-file=/dev/null --no-resolv --no-hosts --bind-interfaces \
        --listen-address="${dns// /,}" --host-record=target.example,$TARGET --user=root \
        --pid-file="$dir/dnsmasq.pid" --log-facility=- >"$out/$ns-dnsmasq.log" 2>&1 &
    bg_pids+=($!)
}

start_servers() {
    start_network_servers isp isp-rtr 100.64.1 "$ISP_DNS"
    start_network_servers lte lte-rtr 10.64.0 "$LTE_DNS"
}

run_step() {
    case $1 in
        cable-pull) ip -n isp link set isp-rtr down ;;
        cable-return) ip -n isp link set isp-rtr up ;;
        upstream-down) ip -n isp link set isp-up down ;;
        upstream-up)
            ip -n isp link set isp-up up
            ip -n isp route replace default via 198.18.1.2
            ;;
        lte-fail) modem_fails ;;
        lte-ok) modem_works "$(scaled "$attach_delay")" ;;
        *) echo "sim/run: unknown step '$1'" >&2; return 1 ;;
    esac
}

# A line of the state the measurements need, written when it changes: the
# store's view, the route the router really takes to the LAN's server, eth0's carrier and the
# resolver's servers.
poll_state() {
    local interval=$1 store=$work/router/var/lib/failover/nvram
    local prev="" line keys route carrier dns
    # A failed look (no route, a store being replaced) is a value, not the end of the poller.
    set +e +o pipefail
    while :; do
        keys=$( (tr '\0' '\n' <"$store" 2>/dev/null || true) | awk '
            NR % 2 == 1 { k = $0; next } { v[k] = $0 }
            END { printf "cur=%s port=%s lte=%s wan1=%s wan=%s", v["current_ifname"],
                  v["wan_port_status"], v["wwan_runtime_state"], v["wan1_ipaddr"], v["wan_ipaddr"] }')
        route=$(ip -n router route get "$SERVER" 2>/dev/null |
                awk '{ for (i = 1; i < NF; i++) if ($i == "dev") { print $(i + 1); exit } }')
        carrier=down
        ip -n router -o link show eth0 2>/dev/null | grep -q 'LOWER_UP' && carrier=up
        dns=$(awk '$1 == "nameserver" { printf "%s%s", s, $2; s = "," }' \
                  "$work/router/tmp/resolv.conf" 2>/dev/null || true)
        line="$keys route=${route:-none} carrier=$carrier dns=${dns:-none}"
        if [ "$line" != "$prev" ]; then
            echo "$EPOCHREALTIME $line"
            prev=$line
        fi
        sleep "$interval"
    done
}

stamp() {
    local line
    while IFS= read -r line; do
        printf '%s %s\n' "$EPOCHREALTIME" "$line"
    done
}

# The LAN host's continuous ping of the server, and the state poller.
start_probes() {
    local interval=$1
    ip netns exec lan "$build/deps/busybox-static/bin/busybox" ping -i "$interval" "$SERVER" \
        > >(stamp >"$out/probe.log") 2>&1 &
    bg_pids+=($!)
    echo "$interval" >"$out/probe-interval"
    poll_state "$interval" >"$out/state.log" &
    bg_pids+=($!)
}

current_state() {
    tail -n 1 "$out/state.log" 2>/dev/null | awk '{ for (i = 2; i <= NF; i++) if ($i ~ /^(cur|route|carrier|lte)=/) printf "%s ", $i }'
}

stop_background() {
    local pid
    stop_router
    for pid in "${bg_pids[@]}"; do
        kill "$pid" 2>/dev/null || true
    done
    for pid in "${bg_pids[@]}"; do
        wait "$pid" 2>/dev/null || true
    done
    bg_pids=()
}

remove_topology() {
    local ns
    for ns in $NAMESPACES; do
        ip netns delete "$ns" 2>/dev/null || true
    done
}
