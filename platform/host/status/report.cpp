// The status as a screen of plain text (80 columns, stable labels) and as one JSON object.
#include "platform/host/status/status.h"

#include <cstdio>
#include <string>

namespace status {
namespace {

constexpr std::size_t kColumns = 80;

// Length of the valid UTF-8 sequence at the start of `s`, 0 when it is not one.
std::size_t utf8_length(std::string_view s) {
    auto byte = [&](std::size_t i) { return static_cast<unsigned char>(s[i]); };
    unsigned char c = byte(0);
    std::size_t n = c < 0x80 ? 1 : (c & 0xe0) == 0xc0 ? 2 : (c & 0xf0) == 0xe0 ? 3
                              : (c & 0xf8) == 0xf0 ? 4 : 0;
    if (n == 0 || n > s.size() || (n == 2 && c < 0xc2)) return 0;
    for (std::size_t i = 1; i < n; ++i)
        if ((byte(i) & 0xc0) != 0x80) return 0;
    if (n == 3 && ((c == 0xe0 && byte(1) < 0xa0) || (c == 0xed && byte(1) >= 0xa0))) return 0;
    if (n == 4 && ((c == 0xf0 && byte(1) < 0x90) || c > 0xf4 || (c == 0xf4 && byte(1) >= 0x90)))
        return 0;
    return n;
}

// A screen line: control characters and broken UTF-8 as "?", cut at the screen's width.
std::string screen_line(std::string_view text) {
    std::string out;
    std::size_t columns = 0;
    while (!text.empty() && columns < kColumns) {
        std::size_t n = utf8_length(text);
        unsigned char c = static_cast<unsigned char>(text[0]);
        if (n == 0 || c < 0x20 || c == 0x7f) {
            out += '?';
            n = 1;
        } else {
            out.append(text.substr(0, n));
        }
        text.remove_prefix(n);
        ++columns;
    }
    return out + '\n';
}

std::string or_unknown(const std::string &value) { return value.empty() ? "unknown" : value; }

bool has_address(const std::string &address) {
    return !address.empty() && address != "0.0.0.0";
}

// 0..100 from a decimal text, or -1.
int percent(const std::string &text) {
    if (text.empty() || text.size() > 3) return -1;
    int value = 0;
    for (char c : text) {
        if (c < '0' || c > '9') return -1;
        value = value * 10 + (c - '0');
    }
    return value <= 100 ? value : -1;
}

const char *wan_name(Wan wan) {
    return wan == Wan::ethernet ? "Ethernet" : wan == Wan::lte ? "LTE" : "unknown";
}

const char *wan_key(Wan wan) {
    return wan == Wan::ethernet ? "ethernet" : wan == Wan::lte ? "lte" : nullptr;
}

// Totals with one decimal ("6.0"), steps as short as they go ("0.5", "13").
std::string seconds(double value, bool total) {
    char text[32];
    if (total)
        std::snprintf(text, sizeof text, "%.1f", value);
    else
        std::snprintf(text, sizeof text, "%g", value);
    return text;
}

std::string offline_reason(const Status &s) {
    if (s.active == Wan::unknown) return "no: the active WAN is unknown";
    if (s.active == Wan::lte) return "no: LTE has no address";
    if (!has_address(s.eth_address)) return "no: Ethernet has no address";
    return "no: the last test did not reach the Internet";
}

void estimate_lines(std::string &out, const char *label, const Estimate &e,
                    const std::string &proto) {
    std::string head = label;
    head.resize(14, ' ');
    if (!e.possible) {
        out += screen_line(head + e.why_not);
        return;
    }
    out += screen_line(head + seconds(e.best(), true) + " to " + seconds(e.worst(), true) +
                       " s until " + e.until + " (wan_proto " + proto + ")");
    out += screen_line("  best  " + explain(e, false));
    out += screen_line("  worst " + explain(e, true));
}

// ---- JSON -----------------------------------------------------------------------------

std::string quoted(std::string_view text) {
    std::string out = "\"";
    while (!text.empty()) {
        std::size_t n = utf8_length(text);
        unsigned char c = static_cast<unsigned char>(text[0]);
        if (c == '"' || c == '\\') {
            out += '\\';
            out += static_cast<char>(c);
        } else if (n == 0 || c < 0x20 || c == 0x7f) {
            // A byte that is no text shows as the character of its value.
            char escape[8];
            std::snprintf(escape, sizeof escape, "\\u%04x", c);
            out += escape;
            n = 1;
        } else {
            out.append(text.substr(0, n));
        }
        text.remove_prefix(n == 0 ? 1 : n);
    }
    return out + "\"";
}

// A text, or null when empty.
std::string text_or_null(const std::string &text) { return text.empty() ? "null" : quoted(text); }

std::string address_or_null(const std::string &address) {
    return has_address(address) ? quoted(address) : "null";
}

// Members of one object, each on its own line at the given depth.
struct Object {
    int depth;
    std::string body;
    void add(const char *key, const std::string &value) {
        if (!body.empty()) body += ",\n";
        body += std::string(static_cast<std::size_t>(depth + 1) * 2, ' ') + quoted(key) + ": " +
                value;
    }
    // On one line, for the items of a list.
    std::string inline_close() const {
        std::string flat;
        for (std::size_t i = 0; i < body.size(); ++i) {
            if (body[i] != '\n') {
                flat += body[i];
                continue;
            }
            flat += ' ';
            while (i + 1 < body.size() && body[i + 1] == ' ') ++i;
        }
        while (!flat.empty() && flat.front() == ' ') flat.erase(0, 1);
        return "{" + flat + "}";
    }
    std::string close() const {
        if (body.empty()) return "{}";
        return "{\n" + body + "\n" + std::string(static_cast<std::size_t>(depth) * 2, ' ') + "}";
    }
};

std::string array(int depth, const std::vector<std::string> &items) {
    if (items.empty()) return "[]";
    std::string indent(static_cast<std::size_t>(depth + 1) * 2, ' ');
    std::string out = "[\n";
    for (std::size_t i = 0; i < items.size(); ++i)
        out += indent + items[i] + (i + 1 < items.size() ? ",\n" : "\n");
    return out + std::string(static_cast<std::size_t>(depth) * 2, ' ') + "]";
}

std::string estimate_json(int depth, const Estimate &e) {
    Object o{depth, {}};
    if (!e.possible) {
        o.add("best_s", "null");
        o.add("worst_s", "null");
        o.add("why_not", quoted(e.why_not));
        return o.close();
    }
    o.add("best_s", seconds(e.best(), true));
    o.add("worst_s", seconds(e.worst(), true));
    o.add("until", quoted(e.until));
    o.add("best", quoted(explain(e, false)));
    o.add("worst", quoted(explain(e, true)));
    std::vector<std::string> steps;
    for (const Step &step : e.steps) {
        Object s{depth + 2, {}};
        s.add("step", quoted(step.what));
        s.add("best_s", seconds(step.best, false));
        s.add("worst_s", seconds(step.worst, false));
        steps.push_back(s.inline_close());
    }
    o.add("steps", array(depth + 1, steps));
    return o.close();
}

}  // namespace

std::string render_screen(const Status &s) {
    std::string out;
    auto line = [&](const char *label, const std::string &text) {
        std::string head = label;
        if (!text.empty()) head.resize(14, ' ');
        out += screen_line(head + text);
    };

    std::string daemon;
    if (s.daemon.running) {
        daemon = "running, pid " + std::to_string(s.daemon.pid);
        if (!s.daemon.started.empty()) daemon += ", started " + s.daemon.started;
    } else {
        daemon = "not running (" + s.daemon.note + ")";
    }
    line("Daemon", daemon);
    line("Mode", std::string(s.failover_active ? "failover on" : "failover off") +
                     " (wwan_wan_type \"" + s.wan_type + "\")");

    std::string traffic = wan_name(s.active);
    if (s.active == Wan::ethernet) traffic += " (" + s.eth_ifname + ")";
    if (s.active == Wan::lte) traffic += " (" + s.lte_ifname + ")";
    if (s.active == Wan::unknown) traffic += " (current_ifname \"" + s.current_ifname + "\")";
    else traffic += " since " + or_unknown(s.since);
    line("Traffic", traffic);
    line("Online", s.online ? "yes" : offline_reason(s));

    std::string eth = s.eth_ifname + " " +
                      (s.eth_proto.empty() ? "(wan_proto unset)" : s.eth_proto) + ", link " +
                      s.eth_link + ", ";
    if (has_address(s.eth_address))
        eth += "address " + s.eth_address + ", gateway " + or_unknown(s.eth_gateway);
    else
        eth += "no address";
    line("Ethernet", eth);

    if (!s.test) {
        line("Last test", "none recorded");
    } else {
        const ReachabilityTest &t = *s.test;
        std::string loss = t.loss < 0 ? "unknown" : std::to_string(t.loss) + "%";
        line("Last test", (t.when.empty() ? "time unknown" : t.when) + " to " +
                              or_unknown(t.address) + ", loss " + loss +
                              (*t.reached ? ": Internet reached" : ": Internet not reached"));
    }

    std::string lte = s.lte_ifname + " " + (s.lte_state.empty() ? "state unknown" : s.lte_state) +
                      ", " +
                      (has_address(s.lte_address) ? "address " + s.lte_address : "no address");
    int signal = percent(s.lte_signal);
    lte += ", signal " + (signal < 0 ? std::string("unknown") : std::to_string(signal) + "%");
    if (!s.lte_tech.empty()) lte += ", " + s.lte_tech;
    if (!s.lte_operator.empty()) lte += ", " + s.lte_operator;
    line("LTE", lte);
    std::string modem = s.module_ready == "1" ? "ready"
                        : s.module_ready == "0" ? "not ready (" + or_unknown(s.module_reason) + ")"
                                                : "unknown";
    line("LTE modem", modem);
    line("LTE error", s.lte_error.empty() ? "none" : s.lte_error);

    line("Console", s.console + (s.console_note.empty() ? "" : ": " + s.console_note));
    if (s.switches.empty()) {
        line("Last switches", "none recorded");
    } else {
        line("Last switches", "");
        for (const Switch &sw : s.switches) {
            std::string when = sw.when.empty() ? "time unknown" : sw.when;
            when.resize(21, ' ');
            std::string to = std::string("to ") + wan_name(sw.to);
            to.resize(13, ' ');
            out += screen_line("  " + when + to + sw.cause);
        }
    }
    if (!s.event_log_note.empty()) {
        line("Event log", s.event_log + ": " + s.event_log_note);
    } else if (s.events.empty()) {
        line("Event log", s.event_log + ": empty");
    } else {
        line("Event log", s.event_log);
        for (const EventLogEntry &e : s.events) {
            std::string when = e.when.empty() ? "time unknown" : e.when;
            when.resize(21, ' ');
            out += screen_line("  " + when + e.text);
        }
    }
    estimate_lines(out, "Cable pull", s.cable_pull, s.eth_proto);
    estimate_lines(out, "Failback", s.failback, s.eth_proto);
    return out;
}

std::string render_json(const Status &s) {
    Object root{0, {}};
    root.add("online", s.online ? "true" : "false");

    Object daemon{1, {}};
    daemon.add("running", s.daemon.running ? "true" : "false");
    daemon.add("pid", s.daemon.pid > 0 ? std::to_string(s.daemon.pid) : "null");
    daemon.add("started", text_or_null(s.daemon.started));
    daemon.add("note", text_or_null(s.daemon.note));
    root.add("daemon", daemon.close());

    root.add("failover_active", s.failover_active ? "true" : "false");
    root.add("wwan_wan_type", quoted(s.wan_type));
    root.add("active_wan", wan_key(s.active) ? quoted(wan_key(s.active)) : "null");
    root.add("current_ifname", quoted(s.current_ifname));
    root.add("since", text_or_null(s.since));

    Object eth{1, {}};
    eth.add("ifname", quoted(s.eth_ifname));
    eth.add("wan_proto", quoted(s.eth_proto));
    eth.add("link", s.eth_link == "unknown" ? "null" : quoted(s.eth_link));
    eth.add("address", address_or_null(s.eth_address));
    eth.add("gateway", address_or_null(s.eth_gateway));
    root.add("ethernet", eth.close());

    if (!s.test) {
        root.add("last_test", "null");
    } else {
        Object test{1, {}};
        test.add("time", text_or_null(s.test->when));
        test.add("address", text_or_null(s.test->address));
        test.add("loss_percent", s.test->loss < 0 ? "null" : std::to_string(s.test->loss));
        test.add("reached", *s.test->reached ? "true" : "false");
        root.add("last_test", test.close());
    }

    Object lte{1, {}};
    lte.add("ifname", quoted(s.lte_ifname));
    lte.add("state", text_or_null(s.lte_state));
    lte.add("address", address_or_null(s.lte_address));
    int signal = percent(s.lte_signal);
    lte.add("signal_percent", signal < 0 ? "null" : std::to_string(signal));
    lte.add("access_tech", text_or_null(s.lte_tech));
    lte.add("operator", text_or_null(s.lte_operator));
    lte.add("module_ready",
            s.module_ready == "1" ? "true" : s.module_ready == "0" ? "false" : "null");
    lte.add("module_ready_reason", text_or_null(s.module_reason));
    lte.add("last_error", text_or_null(s.lte_error));
    root.add("lte", lte.close());

    Object console{1, {}};
    console.add("source", quoted(s.console));
    console.add("error", text_or_null(s.console_note));
    root.add("console", console.close());

    std::vector<std::string> switches;
    for (const Switch &sw : s.switches) {
        Object o{2, {}};
        o.add("time", text_or_null(sw.when));
        o.add("to", wan_key(sw.to) ? quoted(wan_key(sw.to)) : "null");
        o.add("cause", quoted(sw.cause));
        switches.push_back(o.inline_close());
    }
    root.add("switches", array(1, switches));

    Object log{1, {}};
    log.add("path", quoted(s.event_log));
    log.add("error", text_or_null(s.event_log_note));
    std::vector<std::string> lines;
    for (const EventLogEntry &e : s.events) {
        Object o{3, {}};
        o.add("time", text_or_null(e.when));
        o.add("text", quoted(e.text));
        lines.push_back(o.inline_close());
    }
    log.add("lines", array(2, lines));
    root.add("event_log", log.close());

    Object timings{1, {}};
    timings.add("cable_pull", estimate_json(2, s.cable_pull));
    timings.add("failback", estimate_json(2, s.failback));
    root.add("timings", timings.close());
    return root.close() + "\n";
}

}  // namespace status
