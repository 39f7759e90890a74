// SPDX-License-Identifier: Apache-2.0
// The page of --report: draws what stands in its own data. Texts are set as texts, never as markup.
"use strict";
(() => {
  const data = JSON.parse(document.getElementById("data").textContent);
  const report = document.getElementById("report");
  const charts = [];

  const number = (value) => Math.round(value).toLocaleString("en-US");
  const rate = (value) => (value >= 10 || value === 0 ? number(value) : value.toLocaleString("en-US", { maximumFractionDigits: 2 }));
  const share = (value) => (value > 0 && value < 0.01 ? "less than 1 %" : value < 1 && value > 0.99 ? "more than 99 %" : `${Math.round(value * 100)} %`);
  const colour = (name) => getComputedStyle(document.documentElement).getPropertyValue(`--${name}`).trim();

  function add(parent, tag, text, className) {
    const element = document.createElement(tag);
    if (text !== undefined) element.textContent = text;
    if (className) element.className = className;
    parent.append(element);
    return element;
  }

  // columns: [heading, "number", "text" or nothing]; rows of texts.
  function addTable(parent, columns, rows) {
    const table = add(add(parent, "div", undefined, "scroll"), "table");
    const head = add(add(table, "thead"), "tr");
    for (const [heading, kind] of columns) add(head, "th", heading, kind);
    const body = add(table, "tbody");
    for (const row of rows) {
      const line = add(body, "tr");
      row.forEach((cell, i) => add(line, "td", cell, columns[i][1]));
    }
  }

  // Stretches without a packet are there too: nothing came in them.
  function rowsOf(points, columns) {
    const rows = [];
    const last = data.total.length ? data.total[data.total.length - 1][0] : 0;
    let next = 0;
    for (let place = 0; place <= last + 1; place++) {
      const is = next < points.length && points[next][0] === place;
      const [, offered, stopped, dropped, peak] = is ? points[next++] : [place, 0, 0, 0, 0];
      const values = { offered: offered / data.width_s, passed: (offered - stopped - dropped) / data.width_s, peak };
      rows.push([new Date(data.start_ms + place * data.width_s * 1000), ...columns.map((name) => values[name])]);
    }
    return rows;
  }

  const names = { offered: "offered", passed: "passed", peak: "busiest second", limit: "limit" };
  const markColours = { alarm: "alarm", cleared: "cleared", rule: "rule", withdrawn: "rule", refused: "rule", capture: "capture" };

  function drawMarks(context, area, graph, marks) {
    context.save();
    for (const mark of marks) {
      const x = Math.round(graph.toDomXCoord(mark.ms)) + 0.5;
      if (x < area.x || x > area.x + area.w) continue;
      context.strokeStyle = colour(markColours[mark.kind]);
      context.setLineDash(mark.kind === "withdrawn" || mark.kind === "cleared" ? [4, 4] : []);
      context.beginPath();
      context.moveTo(x, area.y);
      context.lineTo(x, area.y + area.h);
      context.stroke();
    }
    context.restore();
  }

  // The part of a long time in which a flood lies, with as much again on both sides.
  function windowOf(flood) {
    const [first, last] = [flood.first, flood.last].map((time) => Date.parse(`${time.replace(" ", "T")}Z`));
    const widthMs = data.width_s * 1000;
    const margin = Math.max(last - first, 20 * widthMs);
    const end = data.start_ms + (data.total[data.total.length - 1][0] + 1) * widthMs;
    return [Math.max(data.start_ms, first - margin), Math.min(end, last + margin)];
  }

  // limit: packets a second, or null. shown: [from, to] in ms, or null for all.
  function addChart(parent, points, limit, marks, shown) {
    const columns = data.width_s > 1 ? ["peak", "offered", "passed"] : ["offered", "passed"];
    const key = add(parent, "div", undefined, "key");
    const addKey = (text, name) => add(key, "span", text).style.setProperty("--of", `var(--${name})`);
    for (const name of columns) addKey(names[name], name);
    if (limit !== null) addKey(names.limit, "limit");
    const kinds = { alarm: "alarm raised (dashed: cleared)", rule: "rule in the chip (dashed: withdrawn)", capture: "capture" };
    for (const [kind, text] of Object.entries(kinds)) {
      if (marks.some((mark) => markColours[mark.kind] === kind)) addKey(text, kind);
    }
    const place = add(parent, "div", undefined, "chart");
    const rows = rowsOf(points, columns);
    // The last of them lies on top.
    const all = limit !== null ? [...columns, "limit"] : columns;
    if (limit !== null) rows.forEach((row) => row.push(limit));
    const options = () => ({
      colors: all.map((name) => colour(name)),
      gridLineColor: colour("line"),
      axisLineColor: colour("line"),
    });
    const graph = new Dygraph(place, rows, {
      ...options(),
      labels: ["time", ...all.map((name) => names[name])],
      labelsUTC: true,
      stepPlot: true,
      includeZero: true,
      strokeWidth: 1.5,
      series: { [names.limit]: { strokePattern: [6, 4], stepPlot: false }, [names.peak]: { strokeWidth: 1 }, [names.offered]: { fillGraph: true } },
      axes: { y: { axisLabelFormatter: (value) => rate(value), valueFormatter: (value) => `${rate(value)}/s`, axisLabelWidth: 60 } },
      dateWindow: shown,
      legend: "follow",
      underlayCallback: (context, area, g) => drawMarks(context, area, g, marks),
    });
    charts.push(() => graph.updateOptions(options()));
  }

  const sourceColumns = [["sender"], ["packets", "number"], ["share", "number"], ["peak/s", "number"], ["stopped", "number"], ["dropped", "number"]];
  function addSources(parent, title, sources) {
    if (!sources.busiest.length) return;
    const panel = add(parent, "div");
    const about = sources.number_is_exact ? "" : "about ";
    add(panel, "h3", `${title} (${about}${number(sources.number)})`);
    addTable(panel, sourceColumns, sources.busiest.map((one) => [one.address, number(one.packets), share(one.share),
      number(one.peak_second_packets), number(one.stopped_in_chip), number(one.dropped_in_software)]));
  }

  const nameOf = (flood) => flood.protocol ?? "frames of no class";

  function addFlood(flood) {
    const panel = add(report, "section", undefined, "flood");
    add(panel, "h3", `${nameOf(flood)} on port ${flood.port}, VLAN ${flood.vlan}`);
    add(panel, "p", `${flood.first} to ${flood.last}${flood.times > 1 ? `, ${flood.times} times` : ""}: ${number(flood.average_pps)} packets a second, ` +
      `${number(flood.peak_second_packets)} in the busiest second, where ${number(flood.limit_pps)} are allowed. From ${flood.from}.`);
    add(panel, "p", `Of ${number(flood.packets)} packets the chip stopped ${number(flood.stopped_in_chip)}, software dropped ` +
      `${number(flood.dropped_in_software)}, ${number(flood.passed)} passed.` + (flood.hidden_by_period ? " No alarm: the fast period averages it away." : ""), "faint");
    if (flood.points) addChart(panel, flood.points, flood.limit_pps, flood.marks, windowOf(flood));
    else add(panel, "p", "There were too many flows to keep the rate of this one.", "faint");
    const columns = add(panel, "div", undefined, "columns");
    addSources(columns, "Senders", flood.addresses);
    addSources(columns, "Through the MAC addresses", flood.macs);
    if (flood.marks.length) {
      const details = add(panel, "details");
      details.open = flood.marks.length <= 8;
      add(details, "summary", `Alarms, rules and captures: ${number(flood.marks.length + flood.more_marks)}`);
      addTable(details, [["time"], ["what", "text"]], flood.marks.map((mark) => [mark.time, mark.text]));
      if (flood.more_marks) add(details, "p", `and ${number(flood.more_marks)} more`, "faint");
    }
  }

  const verdict = data.verdict;
  add(report, "h1", verdict.answer[0], verdict.flooded ? "bad" : "");
  for (const line of verdict.answer.slice(1)) add(report, "p", line);
  for (const note of verdict.notes) add(report, "p", `Note: ${note}`);
  add(report, "p", `Read from ${data.files.join(", ")}.`, "faint");
  if (data.total.length) {
    const packets = data.packets;
    const panel = add(report, "section", undefined, "panel");
    add(panel, "h3", "All packets received");
    add(panel, "p", `Of ${number(packets.received)} the chip stopped ${number(packets.stopped)}, software dropped ${number(packets.dropped)}, ${number(packets.passed)} passed.`);
    addChart(panel, data.total, null, [], null);
    add(panel, "p", `Packets a second, over ${data.width_s === 1 ? "each second" : `stretches of ${number(data.width_s)} s; the busiest second of each beside it`}.`, "faint");
  }
  if (data.floods.length) {
    add(report, "h2", "Floods, most harmful first");
    const withChart = data.floods.filter((flood) => "points" in flood);
    withChart.forEach(addFlood);
    const rest = data.floods.filter((flood) => !("points" in flood));
    if (rest.length) {
      add(report, "h2", "Further floods");
      addTable(report, [["protocol"], ["port", "number"], ["vlan", "number"], ["first"], ["last"], ["busiest second", "number"], ["limit/s", "number"], ["from"]],
        rest.map((flood) => [nameOf(flood), String(flood.port), String(flood.vlan), flood.first, flood.last, number(flood.peak_second_packets), number(flood.limit_pps), flood.from]));
      if (data.more_floods) add(report, "p", `and ${number(data.more_floods)} more: anti-cpu replay --all`, "faint");
    }
  }
  if (data.limits.classes.length) {
    add(report, "h2", "Limits that would fit");
    add(report, "p", `Packets a second of any one flow, over a fast period of ${number(data.limits.fast_period_s)} s, with a margin of ${data.limits.margin}. ` +
      "What is no flood above is taken for good traffic here; anti-cpu tune asks captures of good days, looks at senders, too, and tries the limits out.", "faint");
    const differs = (row) => (row.recommended_pps === null ? "-" : number(row.recommended_pps) + (row.recommended_pps === row.now_pps ? "" : " *"));
    addTable(report, [["protocol"], ["good, busiest second", "number"], ["busiest period", "number"], ["flood, busiest period", "number"], ["limit now", "number"], ["would fit", "number"], ["why", "text"]],
      data.limits.classes.map((row) => [row.protocol, number(row.good_second), rate(row.good_period_pps), row.flood_period_pps === null ? "-" : rate(row.flood_period_pps),
        number(row.now_pps), differs(row), row.why]));
    add(report, "p", "* differs from the limit in force.", "faint");
  }
  if (verdict.try_next) {
    add(report, "h2", "Try next");
    const list = add(report, "ul");
    for (const reason of verdict.reasons) add(list, "li", reason);
    add(report, "pre", verdict.try_next);
  }
  document.getElementById("licence").textContent = document.getElementById("licence-text").textContent;
  matchMedia("(prefers-color-scheme: dark)").addEventListener("change", () => charts.forEach((redraw) => redraw()));
})();
