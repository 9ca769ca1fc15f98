// `zel-prof html FILE -o OUT`: a raw-data file as one HTML page that opens offline in any
// browser. The figures are embedded as JSON and drawn as inline SVG by a script in the page; no
// external script, style sheet or font is referenced.
#include <cstdio>
#include <string>

#include <nlohmann/json.hpp>

#include "zel_prof/commands.h"
#include "zel_prof/html_report.h"
#include "zel_prof/stage_table.h"
#include "zel_prof/stdout_logger.h"

namespace zel_prof {

namespace {

constexpr char kPageHead[] = R"HTML(<!DOCTYPE html>
<html lang="en">
<head>
<meta charset="utf-8">
<meta name="viewport" content="width=device-width, initial-scale=1">
<title>zel-prof report</title>
<style>
body { font-family: system-ui, -apple-system, "Segoe UI", Roboto, sans-serif; margin: 24px 32px;
       color: #1d2733; background: #fafbfc; }
h1 { font-size: 22px; margin: 0 0 4px; }
h2 { font-size: 16px; margin: 28px 0 8px; }
.meta { color: #5b6878; font-size: 13px; }
.note { color: #5b6878; font-size: 12px; margin: 2px 0 6px; }
section { background: #fff; border: 1px solid #e1e5ea; border-radius: 6px; padding: 12px 16px;
          margin-bottom: 16px; }
svg { display: block; font-size: 11px; }
svg text { fill: #1d2733; }
.axis line, .axis path { stroke: #9aa5b1; }
.axis line.grid { stroke: #e8ecf0; }
.legend { font-size: 12px; }
table { border-collapse: collapse; font-size: 12px; font-variant-numeric: tabular-nums; }
th, td { padding: 3px 10px; text-align: right; border-bottom: 1px solid #eef1f4; }
th { background: #f3f5f7; position: sticky; top: 0; }
td.stage, th.stage { text-align: left; font-family: ui-monospace, Menlo, Consolas, monospace; }
tr:hover td { background: #f6f9fc; }
.icicle-node rect { stroke: #fff; stroke-width: 1; }
.icicle-node:hover rect, .box:hover rect.iqr { filter: brightness(0.9); }
</style>
</head>
<body>
)HTML";

constexpr char kPageScript[] = R"HTML(
<script>
"use strict";
const D = JSON.parse(document.getElementById("profile-data").textContent);
const NS = "http://www.w3.org/2000/svg";
const COLORS = ["#4e79a7", "#f28e2b", "#e15759", "#76b7b2", "#59a14f", "#edc948", "#b07aa1",
                "#ff9da7", "#9c755f", "#bab0ac"];

function el(tag, attrs, parent, text) {
  const e = document.createElementNS(NS, tag);
  for (const k in attrs) e.setAttribute(k, attrs[k]);
  if (text !== undefined) e.textContent = text;
  if (parent) parent.appendChild(e);
  return e;
}
// The value at rank floor(n * q) of the ascending values, the ranks the reports use.
function rank(sorted, q) { return sorted[Math.min(sorted.length - 1, Math.floor(sorted.length * q))]; }
function fmt(v) { return v >= 10000 ? Math.round(v).toLocaleString("en-US") : String(Math.round(v * 10) / 10); }
function colorOf(stage) {
  return stage.depth === 0 ? "#8592a3" : COLORS[(D.stages.indexOf(stage) - 1) % COLORS.length];
}
for (const s of D.stages) {
  const sorted = s.time.slice().sort((a, b) => a - b);
  const self = s.self.slice().sort((a, b) => a - b);
  s.q = { min: sorted[0], q1: rank(sorted, 0.25), median: rank(sorted, 0.5), q3: rank(sorted, 0.75),
          p90: rank(sorted, 0.9), max: sorted[sorted.length - 1], selfMedian: rank(self, 0.5) };
}

function lineChart() {
  const host = document.getElementById("iterations");
  const W = 980, H = 300, L = 60, R = 170, T = 22, B = 34;
  const series = D.stages.filter(s => s.depth <= 1);
  const n = D.iterations;
  let top = 1;
  for (const s of series) for (const v of s.time) top = Math.max(top, v);
  const svg = el("svg", { width: W, height: H, viewBox: `0 0 ${W} ${H}`, role: "img",
                          "aria-label": "time per iteration" }, host);
  const x = i => L + (n > 1 ? i * (W - L - R) / (n - 1) : (W - L - R) / 2);
  const y = v => T + (H - T - B) * (1 - v / top);
  const axis = el("g", { class: "axis" }, svg);
  for (let k = 0; k <= 4; ++k) {
    const v = top * k / 4;
    el("line", { x1: L, x2: W - R, y1: y(v), y2: y(v), class: "grid" }, axis);
    el("text", { x: L - 6, y: y(v) + 4, "text-anchor": "end" }, axis, fmt(v));
  }
  const step = Math.max(1, Math.ceil(n / 10));
  for (let i = 0; i < n; i += step)
    el("text", { x: x(i), y: H - B + 16, "text-anchor": "middle" }, axis, String(i));
  el("text", { x: (L + W - R) / 2, y: H - 2, "text-anchor": "middle" }, axis, "iteration");
  el("text", { x: L - 6, y: 10, "text-anchor": "end" }, axis, "us");
  el("line", { x1: L, x2: W - R, y1: y(0), y2: y(0) }, axis);
  series.forEach((s, k) => {
    const points = s.time.map((v, i) => `${x(i).toFixed(1)},${y(v).toFixed(1)}`).join(" ");
    const line = el("polyline", { points, fill: "none", stroke: colorOf(s), "stroke-width": s.depth ? 1.5 : 2,
                                  "stroke-dasharray": s.depth ? "" : "5 3", class: "series",
                                  "data-stage": s.path }, svg);
    el("title", {}, line, `${s.path}: median ${fmt(s.q.median)} us, max ${fmt(s.q.max)} us`);
    el("line", { x1: W - R + 14, x2: W - R + 34, y1: T + 8 + 18 * k, y2: T + 8 + 18 * k,
                 stroke: colorOf(s), "stroke-width": 2, "stroke-dasharray": s.depth ? "" : "5 3" }, svg);
    el("text", { x: W - R + 40, y: T + 12 + 18 * k, class: "legend" }, svg, s.name);
  });
}

function boxPlots() {
  const host = document.getElementById("boxes");
  const W = 980, L = 240, R = 30, ROW = 24, T = 8, B = 30;
  const H = T + B + ROW * D.stages.length;
  let lo = Infinity, hi = 1;
  for (const s of D.stages) { hi = Math.max(hi, s.q.max); if (s.q.min > 0) lo = Math.min(lo, s.q.min); }
  if (!isFinite(lo)) lo = 1;
  lo = Math.pow(10, Math.floor(Math.log10(lo)));
  hi = Math.pow(10, Math.ceil(Math.log10(hi)));
  if (hi <= lo) hi = lo * 10;
  const x = v => L + (W - L - R) * (Math.log10(Math.max(v, lo)) - Math.log10(lo)) / (Math.log10(hi) - Math.log10(lo));
  const svg = el("svg", { width: W, height: H, viewBox: `0 0 ${W} ${H}`, id: "box-plot",
                          "data-stages": D.stages.length }, host);
  const axis = el("g", { class: "axis" }, svg);
  for (let v = lo; v <= hi * 1.001; v *= 10) {
    el("line", { x1: x(v), x2: x(v), y1: T, y2: H - B, class: "grid" }, axis);
    el("text", { x: x(v), y: H - B + 14, "text-anchor": "middle" }, axis, fmt(v));
  }
  el("text", { x: (L + W - R) / 2, y: H - 2, "text-anchor": "middle" }, axis, "time per iteration, us (log scale)");
  D.stages.forEach((s, k) => {
    const cy = T + ROW * k + ROW / 2, q = s.q, c = colorOf(s);
    const g = el("g", { class: "box", "data-stage": s.path }, svg);
    el("text", { x: 8 + 12 * s.depth, y: cy + 4, class: "stage-label" }, g, s.name);
    el("line", { x1: x(q.min), x2: x(q.max), y1: cy, y2: cy, stroke: "#7a8694" }, g);
    for (const v of [q.min, q.max]) el("line", { x1: x(v), x2: x(v), y1: cy - 5, y2: cy + 5, stroke: "#7a8694" }, g);
    el("rect", { x: x(q.q1), y: cy - 8, width: Math.max(1, x(q.q3) - x(q.q1)), height: 16, fill: c,
                 "fill-opacity": 0.35, stroke: c, class: "iqr" }, g);
    el("line", { x1: x(q.median), x2: x(q.median), y1: cy - 8, y2: cy + 8, stroke: "#1d2733", "stroke-width": 2 }, g);
    el("path", { d: `M${x(q.p90)},${cy - 5} l4,5 l-4,5 l-4,-5 z`, fill: "#e15759" }, g);
    el("title", {}, g, `${s.path}\nmin ${fmt(q.min)}  q1 ${fmt(q.q1)}  median ${fmt(q.median)}  q3 ${fmt(q.q3)}  ` +
                       `90% ${fmt(q.p90)}  max ${fmt(q.max)} us`);
  });
}

function icicle() {
  const host = document.getElementById("tree");
  const W = 980, ROW = 30;
  const depth = Math.max(...D.stages.map(s => s.depth)) + 1;
  const svg = el("svg", { width: W, height: ROW * depth + 4, viewBox: `0 0 ${W} ${ROW * depth + 4}`,
                          id: "icicle", "data-stages": D.stages.length }, host);
  const children = D.stages.map(() => []);
  D.stages.forEach((s, k) => { if (k > 0) children[s.parent].push(k); });
  const place = (k, x0, w) => {
    const s = D.stages[k];
    const g = el("g", { class: "icicle-node", "data-stage": s.path }, svg);
    el("rect", { x: x0, y: 2 + ROW * s.depth, width: Math.max(w, 0.5), height: ROW - 2, fill: colorOf(s),
                 "fill-opacity": s.depth ? 0.85 : 0.6 }, g);
    if (w > 46) {
      const chars = Math.floor((w - 8) / 6.2);
      const label = s.name.length > chars ? s.name.slice(0, Math.max(1, chars - 1)) + "\u2026" : s.name;
      el("text", { x: x0 + 4, y: ROW * s.depth + 20, fill: "#fff", style: "fill:#fff" }, g, label);
    }
    el("title", {}, g, `${s.path}\nmedian ${fmt(s.q.median)} us, self ${fmt(s.q.selfMedian)} us, ` +
                       `90% ${fmt(s.q.p90)} us, avg self ${fmt(s.summary.avg)} us`);
    const kids = children[k];
    const sum = kids.reduce((a, c) => a + D.stages[c].q.median, 0);
    const scale = w / Math.max(s.q.median, sum, 1);
    let cx = x0;
    for (const c of kids) { const cw = D.stages[c].q.median * scale; place(c, cx, cw); cx += cw; }
  };
  place(0, 0, W);
}

function table() {
  const body = document.querySelector("#summary tbody");
  for (const s of D.stages) {
    const tr = document.createElement("tr");
    const cells = ["_".repeat(s.depth) + s.name, s.summary.avg.toFixed(1), s.summary.median, s.summary.p90,
                   s.summary.min, s.summary.max, s.q.median];
    cells.forEach((v, k) => {
      const td = document.createElement("td");
      if (k === 0) td.className = "stage";
      td.textContent = String(v);
      tr.appendChild(td);
    });
    body.appendChild(tr);
  }
}

lineChart();
boxPlots();
icicle();
table();
document.body.setAttribute("data-ready", "1");
</script>
</body>
</html>
)HTML";

std::string Escape(const std::string& text) {
    std::string out;
    for (char c : text) {
        if (c == '<')
            out += "&lt;";
        else if (c == '>')
            out += "&gt;";
        else if (c == '&')
            out += "&amp;";
        else if (c == '"')
            out += "&quot;";
        else
            out += c;
    }
    return out;
}

std::string Page(const std::string& source, uint64_t key, uint64_t records,
                 const StageTable& table) {
    nlohmann::ordered_json stages = nlohmann::ordered_json::array();
    for (const Stage& stage : table.stages) {
        const SummaryFigures figures = Summarize(table, stage.self_time);
        stages.push_back({{"path", stage.path},
                          {"name", stage.name},
                          {"depth", stage.depth},
                          {"parent", stage.parent},
                          {"time", stage.time},
                          {"self", stage.self_time},
                          {"summary",
                           {{"avg", figures.average},
                            {"median", figures.median},
                            {"p90", figures.p90},
                            {"min", figures.min},
                            {"max", figures.max}}}});
    }
    const nlohmann::ordered_json data = {{"iterations", table.iterations}, {"stages", stages}};
    std::string json = data.dump();
    // The data sits in a script element: "</" must not end it early.
    for (size_t at = json.find("</"); at != std::string::npos; at = json.find("</", at + 3))
        json.replace(at, 2, "<\\/");

    char model[24];
    snprintf(model, sizeof(model), "0x%016llx", static_cast<unsigned long long>(key));
    std::string page = kPageHead;
    page += "<h1>zel-prof report</h1>\n<div class=\"meta\">" + Escape(source) +
            " &middot; modelId(" + model + ") &middot; " + std::to_string(table.iterations) +
            " iterations of " + std::to_string(records) + " records &middot; " +
            std::to_string(table.stages.size()) + " stages &middot; unit(us)</div>\n";
    page += "<h2>Per iteration: total and top-level stages</h2>\n<section id=\"iterations\">"
            "<div class=\"note\">Warm-up, drift and throttling show as trends; the dashed line "
            "is the total.</div></section>\n";
    page += "<h2>Distribution per stage</h2>\n<section id=\"boxes\"><div class=\"note\">Whiskers "
            "minimum to maximum, box first to third quartile, black bar median, red diamond "
            "90th percentile of the stage's time.</div></section>\n";
    page += "<h2>Stage tree</h2>\n<section id=\"tree\"><div class=\"note\">Width: median time; "
            "hover for self time and figures.</div></section>\n";
    page += "<h2>Summary (self time, as the text report)</h2>\n<section><table id=\"summary\">"
            "<thead><tr><th class=\"stage\">label</th><th>avg</th><th>median</th><th>90%</th>"
            "<th>min</th><th>max</th><th>median time</th></tr></thead><tbody></tbody></table>"
            "</section>\n";
    page += "<script type=\"application/json\" id=\"profile-data\">" + json + "</script>";
    page += kPageScript;
    return page;
}

struct HtmlOptions {
    RawDataFileOptions file;
    std::string output;
};

}  // namespace

bool WriteHtmlReport(const std::string& path, RawDataCounts counts, const uint64_t* key,
                     const std::string& out, std::string* error) {
    const RawDataProfile loaded = LoadRawDataProfile(path, counts, key, error);
    StageTable table;
    if (loaded.profiler == nullptr || !BuildStageTable(*loaded.profiler, &table, error))
        return false;
    const std::string page = Page(path, loaded.key, loaded.counts.labels, table);
    FILE* file = fopen(out.c_str(), "w");
    if (file == nullptr) {
        *error = "cannot write " + out;
        return false;
    }
    const bool written = fwrite(page.data(), 1, page.size(), file) == page.size();
    if (fclose(file) != 0 || !written) {
        *error = "cannot write " + out;
        return false;
    }
    return true;
}

void AddHtmlCommand(CLI::App& app) {
    static HtmlOptions options;
    CLI::App* command = app.add_subcommand(
            "html", "Write a raw-data file as one self-contained HTML page (charts, tree, table)");
    AddRawDataFileOptions(command, options.file, "Model id shown");
    command->add_option("--output,-o", options.output, "HTML file to write")->required();
    command->callback([] {
        InstallStdoutLogger(options.file.verbose);
        std::string error;
        if (!WriteHtmlReport(options.file.path, options.file.counts, options.file.given_key(),
                             options.output, &error)) {
            fprintf(stderr, "html: %s\n", error.c_str());
            throw CLI::RuntimeError(1);
        }
        printf("%s -> %s\n", options.file.path.c_str(), options.output.c_str());
    });
}

}  // namespace zel_prof
