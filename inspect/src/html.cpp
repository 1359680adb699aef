// The HTML report: one self-contained file (inline CSS and SVG, no script,
// nothing fetched), readable offline and printable. Every text that came
// from the gateway goes through html().
#include <cstdio>

#include "report.hpp"
#include "text.hpp"
#include "zq_diag.h"

namespace zqinspect {

namespace {

constexpr const char *STYLE = R"(body{font:14px/1.4 system-ui,sans-serif;margin:1.5em;color:#222}
h1{font-size:1.4em}h2{font-size:1.15em;border-bottom:1px solid #ccc;margin-top:1.6em}
table{border-collapse:collapse}td,th{border:1px solid #ddd;padding:2px 6px;text-align:left;vertical-align:top}
.level-error{color:#b00;font-weight:bold}.level-warn{color:#a60}.level-success{color:#070}.level-normal{color:#444}
pre{background:#f6f6f6;padding:6px;white-space:pre-wrap;word-break:break-all;margin:2px 0 10px}
.verdict{font-weight:bold;padding:4px 8px;display:inline-block;border-radius:4px}
.verdict.ok{background:#dfd}.verdict.bad{background:#fdd}
svg.ladder{border:1px solid #ddd;background:#fff}
svg text{font:12px monospace}
@media print{pre{white-space:pre-wrap}svg.ladder{page-break-inside:avoid}}
)";

std::string level_span(unsigned level) {
    return std::string("<span class=\"level-") + level_name(level) + "\">" + level_name(level) + "</span>";
}

// The ladder: the client lane on the left, the server lane on the right,
// one arrow per message in time order with its name and key fields.
std::string ladder_svg(const Exchange &e) {
    constexpr int WIDTH = 760, LEFT = 150, RIGHT = 610, TOP = 50, ROW = 34;
    const int height = TOP + ROW * static_cast<int>(e.messages.size()) + 60;
    std::string s = "<svg class=\"ladder\" xmlns=\"http://www.w3.org/2000/svg\" width=\"" +
                    std::to_string(WIDTH) + "\" height=\"" + std::to_string(height) +
                    "\" role=\"img\" aria-label=\"" + html(e.protocol) + " ladder\">\n";
    s += "<defs><marker id=\"arrow\" markerWidth=\"10\" markerHeight=\"8\" refX=\"9\" refY=\"4\" "
         "orient=\"auto\">"
         "<path d=\"M0,0 L10,4 L0,8 z\" fill=\"#333\"/></marker></defs>\n";
    s += "<text class=\"lane client\" x=\"" + std::to_string(LEFT) +
         "\" y=\"20\" text-anchor=\"middle\">client " + html(e.client) + "</text>\n";
    s += "<text class=\"lane server\" x=\"" + std::to_string(RIGHT) +
         "\" y=\"20\" text-anchor=\"middle\">server " +
         html(e.server.empty() ? "(none answered)" : e.server) + "</text>\n";
    for (int x : {LEFT, RIGHT})
        s += "<line x1=\"" + std::to_string(x) + "\" y1=\"30\" x2=\"" + std::to_string(x) + "\" y2=\"" +
             std::to_string(height - 30) + "\" stroke=\"#888\" stroke-dasharray=\"4 3\"/>\n";
    const double t0 = e.messages.empty() ? 0 : e.messages.front().time;
    int y = TOP;
    int index = 0;
    for (const Message &m : e.messages) {
        const bool right = m.from == Lane::client;
        const int x1 = right ? LEFT : RIGHT, x2 = right ? RIGHT : LEFT;
        const char *colour = m.analysed ? "#333" : "#aaa";
        s += "<g class=\"arrow\" data-index=\"" + std::to_string(index++) + "\" data-name=\"" + html(m.name) +
             "\" data-from=\"" + (right ? "client" : "server") + "\">";
        s += "<line x1=\"" + std::to_string(x1) + "\" y1=\"" + std::to_string(y) + "\" x2=\"" +
             std::to_string(x2) + "\" y2=\"" + std::to_string(y) + "\" stroke=\"" + colour +
             "\" marker-end=\"url(#arrow)\"/>";
        std::string fields;
        for (const auto &[k, v] : m.fields)
            if (k != "id" && fields.size() < 60) fields += (fields.empty() ? "" : " ") + k + "=" + v;
        s += "<text x=\"" + std::to_string((LEFT + RIGHT) / 2) + "\" y=\"" + std::to_string(y - 5) +
             "\" text-anchor=\"middle\" fill=\"" + colour + "\">" + html(m.name) + "</text>";
        s += "<text x=\"" + std::to_string((LEFT + RIGHT) / 2) + "\" y=\"" + std::to_string(y + 12) +
             "\" text-anchor=\"middle\" font-size=\"10\" fill=\"#666\">" + html(fields.substr(0, 80)) +
             "</text>";
        char ts[32];
        snprintf(ts, sizeof(ts), "+%.3f s", m.time - t0);
        s += "<text x=\"10\" y=\"" + std::to_string(y + 4) + "\" fill=\"#666\">" + ts + "</text></g>\n";
        y += ROW;
    }
    s += "<text class=\"stopped\" x=\"" + std::to_string(LEFT) + "\" y=\"" + std::to_string(y + 10) +
         "\">stopped at: " + html(e.stopped_at) + "</text>\n";
    s += "</svg>\n";
    return s;
}

} // namespace

std::string render_html(const Report &r) {
    std::string h = "<!DOCTYPE html>\n<html lang=\"en\"><head><meta charset=\"utf-8\">\n"
                    "<meta http-equiv=\"Content-Security-Policy\" content=\"default-src 'none'; style-src "
                    "'unsafe-inline'; img-src data:\">\n"
                    "<title>" +
                    html(r.name) + " - zqdiag-inspect</title>\n<style>" + STYLE + "</style></head><body>\n";
    h += "<h1 id=\"title\">" + html(r.name) + "</h1>\n<table class=\"summary\">";
    h += "<tr><th>kind</th><td id=\"kind\">" + std::string(kind_name(r.kind)) + "</td></tr>";
    h += "<tr><th>size</th><td>" + std::to_string(r.size) + " bytes</td></tr>";
    h += "<tr><th>sha256</th><td>" + r.sha256 + "</td></tr>";
    std::string times;
    for (const std::string &t : r.upload.times) times += (times.empty() ? "" : " or ") + t;
    h += "<tr><th>uploaded</th><td>" + html(times.empty() ? "no time in the name" : times) + "</td></tr>";
    std::string members;
    for (const auto &[name, size] : r.members)
        members += (members.empty() ? "" : ", ") + html(name) + " (" + std::to_string(size) + ")";
    h += "<tr><th>members</th><td>" + members + "</td></tr></table>\n";
    for (const std::string &n : r.notes) h += "<p class=\"note\">" + html(n) + "</p>\n";
    if (!r.log.facts.empty()) {
        h +=
            "<h2>Gateway</h2>\n<table class=\"facts\"><tr><th>record</th><th>field</th><th>value</th></tr>\n";
        for (const Fact &f : r.log.facts)
            h += "<tr><td>" + html(f.section) + (f.record > 1 ? " #" + std::to_string(f.record) : "") +
                 "</td><td>" + html(f.key) + "</td><td>" + html(f.value) + "</td></tr>\n";
        h += "</table>\n";
    }
    if (!r.log.steps.empty()) {
        h += "<h2>Findings</h2>\n";
        for (const Step &s : r.log.steps) {
            h += "<h3>" + html(s.method) + " " + html(s.action) + "</h3>\n<ul class=\"findings\">\n";
            for (const Finding &f : s.findings)
                h += "<li class=\"finding\">" + level_span(f.level) + " <span class=\"text\">" +
                     html(f.text, true) + "</span></li>\n";
            h += "</ul>\n";
        }
    }
    if (!r.exchanges.empty()) {
        h += "<h2>Exchanges</h2>\n";
        for (const Exchange &e : r.exchanges) {
            const bool ok = e.verdict == 0 || e.verdict == 6;
            h += "<section class=\"exchange\" data-protocol=\"" + html(e.protocol) + "\">\n<h3>" +
                 (e.protocol == "dhcp" ? "DHCP" : "PPPoE") + " on " +
                 html(e.interface.empty() ? "the capture's link" : e.interface) + " (" + html(e.capture) +
                 ")</h3>\n";
            h += ladder_svg(e);
            h += "<p><span class=\"verdict " + std::string(ok ? "ok" : "bad") + "\">verdict " +
                 std::to_string(e.verdict) + ": " + html(e.verdict_text) + "</span></p>\n";
            if (!e.findings.empty()) {
                h += "<ul>";
                for (const auto &[level, text] : e.findings)
                    h += "<li>" + level_span(level) + " " + html(text) + "</li>";
                h += "</ul>\n";
            }
            h += "</section>\n";
        }
    }
    if (!r.commands.empty()) {
        h += "<h2>Commands</h2>\n";
        for (const Command &c : r.commands)
            h += "<div class=\"command\"><code>$ " + html(c.command) + "</code> <small>" + html(c.source) +
                 "</small><pre>" + html(c.output, true) + "</pre></div>\n";
    }
    h += "</body></html>\n";
    return h;
}

} // namespace zqinspect
