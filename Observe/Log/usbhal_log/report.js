// SPDX-License-Identifier: MIT
"use strict";

(function () {
    const data = JSON.parse(document.getElementById("data").textContent);
    const linesShown = 60;
    const marks = {
        loss: ["x", "bad"], watchdog: ["diamond", "warn"], kill: ["cross", "bad"],
        host_fault: ["triangle-up", "warn"], refused: ["square", "warn"],
    };
    const element = (id) => document.getElementById(id);
    const timeline = element("timeline");
    let run = null;
    let stops = []; // the events that the keys go to, in order
    let stop = -1;
    let firstLine = 0;

    const colour = (name) => getComputedStyle(document.documentElement).getPropertyValue("--" + name).trim();
    const clock = (ms) => new Date(ms).toISOString().replace("T", " ").replace("Z", "");

    // ---- pictures ----

    function layout(more) {
        const axis = { gridcolor: colour("line"), zerolinecolor: colour("line"), automargin: true };
        return Object.assign({
            paper_bgcolor: colour("back"), plot_bgcolor: colour("back"), font: { color: colour("front") },
            margin: { l: 10, r: 10, t: 10, b: 40 }, showlegend: false, hovermode: "closest",
            hoverlabel: { bgcolor: colour("panel"), font: { color: colour("front") } },
        }, more(axis));
    }

    function stretches(kind, row, colourName) {
        const chosen = run.events.filter((event) => event.kind === kind);
        return {
            type: "bar", orientation: "h", base: chosen.map((event) => event.begin),
            x: chosen.map((event) => Math.max(event.end - event.begin, 1)), y: chosen.map(row),
            marker: { color: colour(colourName) }, width: 0.6, hoverinfo: "text",
            hovertext: chosen.map((event) => `${event.text}<br>${clock(event.begin)} to ${clock(event.end)}`),
            customdata: chosen.map((event) => event.begin),
        };
    }

    function moments(kind) {
        const chosen = run.events.filter((event) => event.kind === kind);
        const [symbol, colourName] = marks[kind];
        return {
            type: "scatter", mode: "markers", x: chosen.map((event) => event.begin), y: chosen.map(() => "Marks"),
            marker: { symbol, size: 11, color: colour(colourName) }, hoverinfo: "text",
            hovertext: chosen.map((event) => `${event.text.replace(/</g, "&lt;")}<br>${clock(event.begin)}`),
            customdata: chosen.map((event) => event.begin),
        };
    }

    function rates() {
        return {
            type: "scatter", mode: "lines", line: { shape: "hv", color: colour("port"), width: 1.5 }, yaxis: "y2",
            x: run.rate.map((point) => point[0]), y: run.rate.map((point) => point[1]),
            hovertemplate: "%{y:.1f} lines a second<extra></extra>", customdata: run.rate.map((point) => point[0]),
        };
    }

    function drawTimeline() {
        const ports = [...new Set(run.events.filter((event) => event.kind === "port").map((event) => event.port))];
        const rows = ["Marks", "Delay", ...ports.sort((a, b) => b - a).map((port) => `Port ${port}`), "Link"];
        const traces = [
            stretches("link", () => "Link", "good"), stretches("down", () => "Link", "bad"),
            stretches("port", (event) => `Port ${event.port}`, "port"), stretches("delay", () => "Delay", "warn"),
            ...Object.keys(marks).map(moments), rates(),
        ];
        const begin = run.events.reduce((least, event) => Math.min(least, event.begin), run.rate[0][0]);
        const end = run.rate[run.rate.length - 1][0];
        Plotly.react(timeline, traces, layout((axis) => ({
            barmode: "overlay", dragmode: "zoom",
            xaxis: Object.assign({}, axis, { type: "date", range: [begin, end], anchor: "y2" }),
            yaxis: Object.assign({}, axis, {
                type: "category", categoryorder: "array", categoryarray: rows, range: [-0.6, rows.length - 0.4],
                domain: [0.32, 1], fixedrange: true,
            }),
            yaxis2: Object.assign({}, axis, {
                domain: [0, 0.24], fixedrange: true, rangemode: "tozero", title: { text: "lines/s", font: { size: 11 } },
            }),
        })), { responsive: true, displaylogo: false, displayModeBar: false });
        timeline.dataset.whole = JSON.stringify([begin, end]);
    }

    function drawRecoveries() {
        element("no-recovery").hidden = run.recoveries.length > 0;
        element("recovery").hidden = run.recoveries.length === 0;
        if (run.recoveries.length === 0)
            return;
        const trace = { type: "histogram", x: run.recoveries, marker: { color: colour("port") },
            hovertemplate: "%{y} times within %{x} s<extra></extra>" };
        Plotly.react("recovery", [trace], layout((axis) => ({
            xaxis: Object.assign({}, axis, { title: { text: "seconds from the loss to the link" } }),
            yaxis: Object.assign({}, axis, { title: { text: "times" }, rangemode: "tozero",
                dtick: run.recoveries.length < 10 ? 1 : null, tickformat: "d" }),
            bargap: 0.05,
        })), { responsive: true, displayModeBar: false, staticPlot: false });
    }

    // ---- lines ----

    function lineAt(ms) {
        let low = 0;
        let high = data.lines.length;
        while (low < high) {
            const middle = (low + high) >> 1;
            if (data.lines[middle][0] < ms)
                low = middle + 1;
            else
                high = middle;
        }
        return Math.min(low, data.lines.length - 1);
    }

    function showLines(first, chosen) {
        firstLine = Math.max(0, Math.min(first, data.lines.length - linesShown));
        const list = element("lines");
        list.replaceChildren(...data.lines.slice(firstLine, firstLine + linesShown).map((line, at) => {
            const item = document.createElement("li");
            item.className = line[1] + (firstLine + at === chosen ? " chosen" : "");
            item.textContent = line[2];
            return item;
        }));
        const mark = list.querySelector(".chosen");
        if (mark)
            list.scrollTop = mark.offsetTop - list.offsetTop - list.clientHeight / 3;
    }

    function showMoment(ms, text) {
        element("moment").textContent = clock(ms) + (text ? ": " + text : "");
        showLines(lineAt(ms) - linesShown / 3, lineAt(ms));
        Plotly.relayout(timeline, { shapes: [{ type: "line", x0: ms, x1: ms, yref: "paper", y0: 0, y1: 1,
            line: { color: colour("front"), width: 1, dash: "dot" } }] });
    }

    // ---- keys ----

    function zoom(factor) {
        const range = timeline.layout.xaxis.range.map((end) => typeof end === "number" ? end : Date.parse(end + "Z"));
        const middle = stop >= 0 ? stops[stop].begin : (range[0] + range[1]) / 2;
        const half = (range[1] - range[0]) * factor / 2;
        Plotly.relayout(timeline, { "xaxis.range": [middle - half, middle + half] });
    }

    function showAll() {
        Plotly.relayout(timeline, { "xaxis.range": JSON.parse(timeline.dataset.whole) });
    }

    function go(step) {
        if (stops.length === 0)
            return;
        stop = Math.max(0, Math.min(stops.length - 1, stop + step));
        showMoment(stops[stop].begin, stops[stop].text);
    }

    const keys = {
        ArrowLeft: () => go(-1), ArrowRight: () => go(1), "+": () => zoom(0.5), "=": () => zoom(0.5),
        "-": () => zoom(2), 0: showAll,
    };

    function onKey(event) {
        const action = keys[event.key];
        if (!action || event.ctrlKey || event.altKey || event.metaKey)
            return;
        event.preventDefault();
        action();
    }

    // ---- the page ----

    function findingItem(finding) {
        const item = document.createElement("li");
        const link = document.createElement("a");
        link.href = "#" + finding.anchor;
        link.textContent = "what to do";
        item.append(finding.text + " ", link);
        return item;
    }

    function showFindings() {
        const items = run.findings.map(findingItem);
        if (items.length === 0) {
            const none = document.createElement("li");
            none.className = "none";
            none.textContent = "Nothing needs attention.";
            items.push(none);
        }
        element("findings").replaceChildren(...items);
    }

    function draw() {
        drawTimeline();
        drawRecoveries();
    }

    function choose(at) {
        run = data.runs[at];
        stop = -1;
        stops = [...run.events].sort((a, b) => a.begin - b.begin);
        showFindings();
        element("summary").textContent = run.text;
        draw();
        element("moment").textContent = "";
        showLines(lineAt(run.events.length ? stops[0].begin : run.rate[0][0]), -1);
    }

    const select = element("run");
    data.runs.forEach((each, at) => {
        const option = document.createElement("option");
        option.value = at;
        option.textContent = `${each.begin} to ${each.end}`;
        select.append(option);
    });
    select.value = data.runs.length - 1;
    select.addEventListener("change", () => choose(Number(select.value)));
    element("earlier").addEventListener("click", () => showLines(firstLine - linesShown / 2, -1));
    element("later").addEventListener("click", () => showLines(firstLine + linesShown / 2, -1));
    element("lines-note").textContent = data.lines.length === data.allLines ? `all ${data.allLines} lines`
        : `${data.lines.length} of ${data.allLines} lines, those near events`;
    choose(data.runs.length - 1);
    timeline.on("plotly_click", (event) => {
        const point = event.points[0];
        showMoment(point.customdata, point.hovertext ? point.hovertext.split("<br>")[0] : "");
    });
    timeline.addEventListener("keydown", onKey);
    matchMedia("(prefers-color-scheme: dark)").addEventListener("change", draw);
})();
