# The soak check, sourced by sim/run: "at T sample" steps record what the daemon's two processes
# and the router hold, and the report compares the first sample (before the flaps) with the
# last (after them, back on Ethernet).
#
# A sample first waits until the router is on Ethernet (`current_ifname` eth0, the default route
# and the route to the LAN's server on eth0), then looks 16 times over 4 s and keeps the least
# of each figure: a ping (3 s, every 90 ticks) or a switch in progress holds a pipe and a shell
# for a while, a leak holds them for good, so the least value over a window longer than such a
# command is the lasting one.
#
# Per daemon process: open descriptors (/proc/PID/fd), child processes (parent is the process),
# VmSize, RssAnon and VmRSS. For the router as a whole: its processes (its PID namespace) and zombies.
# shellcheck shell=bash disable=SC2154  # out, router_pid, SERVER: globals of sim/run

# Memory: VmSize (everything mapped), VmRSS (pages in memory) and RssAnon (its heap and stack
# part) may each grow by the allowance. VmRSS also counts pages of the program and its
# libraries read in the first time a code path runs: 200 to 400 KiB over the first switch,
# which is why the scenarios sample first after a warm-up switch; after it all three stayed
# within 8 KiB over 40 and over 206 flaps (four runs). The allowance leaves room for a rare path run
# for the first time late (a few pages). The soak sees about 100 link losses and 7 full
# switches each way: a leak of a few hundred bytes per link loss or of some 10 KiB per switch
# exceeds it, as does any growth of the heap's mapping (at least 132 KiB a step); a leaked
# descriptor or process fails whatever its size.
readonly SOAK_MEMORY_ALLOWANCE_KIB=64

soak_samples=0

# True when the router carries its traffic on Ethernet.
router_on_ethernet() {
    [ "$(rtr nvram get current_ifname 2>/dev/null)" = eth0 ] || return 1
    ip -n router route show default 2>/dev/null | grep -q ' dev eth0' || return 1
    ip -n router route get "$SERVER" 2>/dev/null | grep -q ' dev eth0'
}

# The router's processes as the outer /proc sees them: "pid ppid state comm" per line.
router_processes() {
    local ns p
    ns=$(readlink "/proc/$router_pid/ns/pid")
    for p in /proc/[0-9]*; do
        [ "$(readlink "$p/ns/pid" 2>/dev/null)" = "$ns" ] || continue
        # comm may hold blanks: take the fields after its closing parenthesis.
        awk '{ c = $0; sub(/^[^(]*\(/, "", c); sub(/\).*$/, "", c); gsub(/ /, "_", c)
               s = $0; sub(/^.*\) /, "", s); split(s, f, " ")
               print $1, f[2], f[1], c }' "$p/stat" 2>/dev/null || true
    done
}

# One look: "role pid fds children rss size anon" per daemon process, then "router - procs
# zombies 0 0 0" and "names NAME:COUNT...".
soak_look() {
    local procs pid role fds children rss size anon
    procs=$(router_processes)
    for pid in $(daemon_pids); do
        role=controller
        [ "$(cat "/proc/$(awk '{ print $4 }' "/proc/$pid/stat")/comm" 2>/dev/null)" = failover ] && role=monitor
        fds=$(find "/proc/$pid/fd" -mindepth 1 -maxdepth 1 2>/dev/null | wc -l)
        children=$(awk -v p="$pid" '$2 == p' <<<"$procs" | wc -l)
        rss=$(awk '/^VmRSS/ { print $2 }' "/proc/$pid/status" 2>/dev/null)
        size=$(awk '/^VmSize/ { print $2 }' "/proc/$pid/status" 2>/dev/null)
        anon=$(awk '/^RssAnon/ { print $2 }' "/proc/$pid/status" 2>/dev/null)
        echo "$role $pid $fds $children ${rss:-0} ${size:-0} ${anon:-0}"
    done
    awk '{ n++ } $3 == "Z" { z++ } END { printf "router - %d %d 0 0 0\n", n, z }' <<<"$procs"
    awk '{ print $4 }' <<<"$procs" | sort | uniq -c | awk '{ printf " %s:%s", $2, $1 } END { print "" }' |
        sed 's/^/names/' 
}

# "at T sample": waits for Ethernet (up to 90 s) and 2 s more, then records the least figures of
# 16 looks. The 2 s let a switch that has just put the route on eth0 finish: the new DHCP client
# goes into the background only after its event script has run the WAN-up, and a look in
# between can find no client at all.
# Lines in OUT/soak.log: "N role pid fds children rss size" and "N names ..." (the router's
# processes by name at the look with the fewest).
soak_sample() {
    local n=$((soak_samples + 1)) deadline=$((SECONDS + 90)) looks=""
    soak_samples=$n
    until router_on_ethernet; do
        if [ $SECONDS -ge $deadline ]; then
            echo "$n not-on-ethernet" >>"$out/soak.log"
            return 0
        fi
        sleep 0.2
    done
    sleep 2
    local fewest=999999 names=""
    for _ in $(seq 16); do
        local look count
        look=$(soak_look)
        looks+="$look"$'\n'
        count=$(awk '$1 == "router" { print $3 }' <<<"$look")
        if [ "$count" -lt "$fewest" ]; then
            fewest=$count
            names=$(sed -n 's/^names//p' <<<"$look")
        fi
        sleep 0.25
    done
    printf '%s' "$looks" | sed "s/^/$n /" >>"$out/soak-looks.log"
    awk -v n="$n" '$1 == "controller" || $1 == "monitor" || $1 == "router" {
            k = $1 " " $2
            if (!(k in v)) { order[++m] = k; v[k] = 1; for (i = 3; i <= 7; i++) least[k, i] = $i }
            for (i = 3; i <= 7; i++) if ($i < least[k, i]) least[k, i] = $i
        }
        END {
            for (j = 1; j <= m; j++) {
                k = order[j]
                print n, k, least[k, 3], least[k, 4], least[k, 5], least[k, 6], least[k, 7]
            }
        }' <<<"$looks" >>"$out/soak.log"
    echo "$n names$names" >>"$out/soak.log"
}

# The table of the first and the last sample; exit status 1 on growth, on a daemon process
# that changed, or when the router did not end on Ethernet.
soak_report() {
    local log=$out/soak.log
    [ -f "$log" ] || { echo "soak: no samples"; return 1; }
    awk -v allow="$SOAK_MEMORY_ALLOWANCE_KIB" '
        $2 == "names" { names[$1] = substr($0, length($1) + 7); next }
        $2 == "ended-off-ethernet" { ended_off = 1; next }
        $2 == "not-on-ethernet" { off[$1] = 1; last = $1 > last ? $1 : last; next }
        {
            last = $1 > last ? $1 : last
            k = $1 SUBSEP $2
            pid[k] = $3; v[k, "fds"] = $4; v[k, "children"] = $5; v[k, "rss"] = $6; v[k, "size"] = $7
            v[k, "anon"] = $8
        }
        function row(what, a, b, limit, unit,   d, verdict) {
            d = b - a
            verdict = d > limit ? "  GROWTH" : ""
            if (d > limit) bad = 1
            printf "  %-10s %-22s %9d %9d %+9d%s\n", role, what " (" unit ")", a, b, d, verdict
        }
        END {
            printf "Soak: sample 1 (before the flaps) and sample %d (after them, back on Ethernet);\n", last
            printf "least value of 16 looks over 4 s; memory may grow by up to %d KiB;\n", allow
            print "the controller'"'"'s child process is the monitor"
            if (last < 2 || off[last] || off[1]) {
                if (off[1]) print "  FAIL: the router was not on Ethernet before the flaps"
                if (last >= 2 && off[last]) print "  FAIL: the router did not come back to Ethernet (eth0, default route on eth0) within 90 s"
                if (last < 2) print "  FAIL: fewer than two samples"
                exit 1
            }
            printf "  %-10s %-22s %9s %9s %9s\n", "process", "figure", "before", "after", "growth"
            n = split("controller monitor router", roles, " ")
            for (i = 1; i <= n; i++) {
                role = roles[i]
                a = 1 SUBSEP role; b = last SUBSEP role
                if (!(a in pid) || !(b in pid)) { printf "  FAIL: no %s process in a sample\n", role; bad = 1; continue }
                if (role == "router") {
                    row("processes", v[a, "fds"], v[b, "fds"], 0, "count")
                    row("zombies", v[a, "children"], v[b, "children"], 0, "count")
                    continue
                }
                if (pid[a] != pid[b]) { printf "  FAIL: the %s changed from pid %s to %s\n", role, pid[a], pid[b]; bad = 1 }
                row("open descriptors", v[a, "fds"], v[b, "fds"], 0, "count")
                row("child processes", v[a, "children"], v[b, "children"], 0, "count")
                row("VmSize", v[a, "size"], v[b, "size"], allow, "KiB")
                row("RssAnon", v[a, "anon"], v[b, "anon"], allow, "KiB")
                row("VmRSS", v[a, "rss"], v[b, "rss"], allow, "KiB")
            }
            if (ended_off) { print "  FAIL: the router did not end on Ethernet (eth0, default route on eth0)"; bad = 1 }
            printf "  router processes before:%s\n", names[1]
            printf "  router processes after: %s\n", names[last]
            print bad ? "soak: FAIL" : "soak: ok"
            exit bad
        }' "$log"
}
