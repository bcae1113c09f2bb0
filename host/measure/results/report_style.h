// SPDX-License-Identifier: MIT
// The report's style sheet: light and dark after the reader's setting, one column on a phone.
#pragma once

namespace ipplay::measure {

inline constexpr char kReportStyle[] = R"css(
:root { color-scheme: light dark; --bg:#f6f7f9; --card:#fff; --ink:#1b2330; --soft:#5c6675;
  --line:#dfe3e9; --s1:#2563c9; --s2:#c2570c; --s3:#0f8a5f; --s4:#9333a8; --good:#0b7a4b;
  --bad:#c02626; }
@media (prefers-color-scheme: dark) { :root { --bg:#12161c; --card:#1a2029; --ink:#e6eaf0;
  --soft:#9aa5b4; --line:#2f3844; --s1:#6ea3ff; --s2:#f29b53; --s3:#4cc99a; --s4:#d08be6;
  --good:#4cc99a; --bad:#ff7b72; } }
* { box-sizing:border-box; }
body { margin:0; background:var(--bg); color:var(--ink);
  font:15px/1.5 system-ui, "Segoe UI", Roboto, "DejaVu Sans", sans-serif; }
main { max-width:1280px; margin:0 auto; padding:24px 20px 48px; }
h1 { font-size:1.5rem; margin:0; } h2 { font-size:1.15rem; margin:2rem 0 .75rem; }
h2 small, header p { color:var(--soft); font-weight:400; } header p { margin:.15rem 0 1.25rem; }
.tiles { display:grid; grid-template-columns:repeat(auto-fit,minmax(170px,1fr)); gap:12px; }
.tile, figure, .scroll { background:var(--card); border:1px solid var(--line); border-radius:8px; }
.tile { padding:10px 14px; } .tile b { display:block; font-size:1.1rem; font-weight:600; white-space:nowrap; }
.tile span { color:var(--soft); font-size:.85rem; } .tile.bad b { color:var(--bad); }
.banner { margin:0 0 12px; padding:10px 14px; border-radius:8px; border:1px solid currentColor; }
.met { color:var(--good); } .not { color:var(--bad); }
.charts { display:grid; grid-template-columns:repeat(2,minmax(0,1fr)); gap:12px; }
figure { margin:0; padding:12px 16px 8px; min-width:0; }
figcaption { margin-bottom:10px; } figcaption span { color:var(--soft); font-size:.85rem; }
.legend { display:block; } .legend i { display:inline-block; width:.8em; height:.8em;
  border-radius:2px; margin:0 .35em 0 0; } .legend i + i, .legend i:not(:first-child) { margin-left:.8em; }
.plot { display:grid; grid-template-columns:72px minmax(0,1fr); grid-template-rows:200px 26px; }
.plot svg { width:100%; height:100%; display:block; overflow:visible; }
.ys, .xs { position:relative; color:var(--soft); font-size:12px; }
.xs { grid-column:2; margin-right:0; } .ys span, .xs span { position:absolute; white-space:nowrap; }
.ys span { right:10px; transform:translateY(-50%); } .xs span { top:6px; transform:translateX(-50%); }
.xs .first { transform:translateX(-10%); } .xs .last { transform:translateX(-75%); }
svg path { vector-effect:non-scaling-stroke; fill:none; stroke-width:1.6; stroke-linejoin:round;
  stroke-linecap:round; }
svg .grid { stroke:var(--line); stroke-width:1; }
.l1 { stroke:var(--s1); } .l2 { stroke:var(--s2); } .l3 { stroke:var(--s3); } .l4 { stroke:var(--s4); }
svg .f1 { fill:var(--s1); stroke:var(--s1); fill-opacity:.55; stroke-width:1; }
svg .f2 { fill:var(--s2); stroke:var(--s2); fill-opacity:.55; stroke-width:1; }
svg .f3 { fill:var(--s3); stroke:var(--s3); fill-opacity:.55; stroke-width:1; }
svg .f4 { fill:var(--s4); stroke:var(--s4); fill-opacity:.55; stroke-width:1; }
.k1 { background:var(--s1); } .k2 { background:var(--s2); } .k3 { background:var(--s3); }
.k4 { background:var(--s4); }
svg .out { fill:var(--bad); fill-opacity:.16; stroke:none; } svg .ev { stroke:var(--bad); stroke-width:2; }
.kout { background:var(--bad); opacity:.3; } .legend .kev { background:var(--bad); width:3px; }
.empty { color:var(--soft); margin:.5rem 0 1rem; }
.scroll { overflow-x:auto; margin:12px 0; } table { border-collapse:collapse; width:100%; font-size:.85rem; }
caption { text-align:left; padding:8px 12px; color:var(--soft); font-size:.85rem; }
th, td { padding:6px 7px; text-align:right; border-top:1px solid var(--line); white-space:nowrap;
  font-variant-numeric:tabular-nums; vertical-align:top; }
thead th { color:var(--soft); font-weight:500; white-space:normal; vertical-align:bottom; font-size:.82rem; }
thead th:first-child, th[scope=row] { text-align:left; font-weight:500; white-space:normal; min-width:9rem; }
td.bad, th.bad { color:var(--bad); font-weight:600; }
.left th, .left td, .facts th, .facts td { text-align:left; white-space:normal; overflow-wrap:anywhere; }
.facts th[scope=row] { color:var(--soft); width:9rem; }
.also { color:var(--soft); white-space:pre-line; margin:12px 0; }
details > summary { cursor:pointer; margin:2rem 0 .75rem; }
summary h2 { display:inline; }
footer { color:var(--soft); font-size:.85rem; margin-top:2rem; }
@media (max-width:760px) { main { padding:16px 12px 32px; } .charts { grid-template-columns:minmax(0,1fr); }
  .tiles { grid-template-columns:repeat(2,minmax(0,1fr)); } .tile b { font-size:1.05rem; }
  .plot { grid-template-columns:60px minmax(0,1fr); grid-template-rows:170px 26px; }
  .xs { font-size:10px; }
  .cards thead { position:absolute; width:1px; height:1px; overflow:hidden; clip-path:inset(50%); }
  .cards, .cards tbody, .cards tr, .cards caption { display:block; }
  .cards tr { display:grid; grid-template-columns:1fr 1fr; gap:2px 14px; padding:8px 12px;
    border-top:1px solid var(--line); }
  .cards th[scope=row] { grid-column:1/-1; min-width:0; } .cards th[scope=row], .cards td { padding:0; border:0; }
  .cards td { display:flex; justify-content:space-between; gap:8px; white-space:normal; text-align:right; }
  .cards td::before { content:attr(data-name); color:var(--soft); font-weight:400; font-size:.85em; text-align:left; }
  .cards.left tr { grid-template-columns:1fr; } .facts th[scope=row] { width:6rem; min-width:6rem; }
  .facts th, .facts td { padding:6px 8px; } }
@media print { body { background:none; } .scroll { overflow:visible; } figure, tr { break-inside:avoid; }
  details::details-content { content-visibility:visible; height:auto; } }
)css";

}  // namespace ipplay::measure
