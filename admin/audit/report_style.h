// The style sheet of the HTML report.
#pragma once

#include <string_view>

namespace kova::admin {

inline constexpr std::string_view kReportStyle = R"css(
:root{--ground:#fff;--text:#1b1f24;--soft:#4d5661;--line:#c9d1d9;--band:#f4f6f8;--link:#0b57a4;
--ok:#2f6f4f;--refused-ground:#f5dfb0;--refused-ink:#7a4f00;--failed-ground:#f4cccc;
--failed-ink:#8f1d1d}
@media screen and (prefers-color-scheme:dark){:root{--ground:#0f1419;--text:#e6edf3;--soft:#a9b4bf;
--line:#3a434d;--band:#182029;--link:#8ec2ff;--ok:#63c294;--refused-ground:#4a3508;
--refused-ink:#f2bd45;--failed-ground:#4a1616;--failed-ink:#ff9a90}}
*{box-sizing:border-box}
html{-webkit-text-size-adjust:100%;text-size-adjust:100%}
body{margin:0;background:var(--ground);color:var(--text);
font:16px/1.5 system-ui,"Segoe UI","DejaVu Sans",sans-serif}
header,nav,main,footer{max-width:76rem;margin:0 auto;padding:0 1rem}
h1{font-size:1.7rem;margin:1.2rem 0 .2rem}
h2{font-size:1.25rem;margin:2rem 0 .5rem;padding-top:.6rem;border-top:1px solid var(--line)}
h3{font-size:1rem;margin:.6rem 0 .2rem}
p{margin:.3rem 0}
a{color:var(--link)}
nav ul{list-style:none;margin:.6rem 0;padding:0;display:flex;flex-wrap:wrap;gap:.2rem 1rem}
nav a{display:inline-block;padding:.3rem 0}
.soft,caption,figcaption{color:var(--soft)}
.sums{display:flex;flex-wrap:wrap;gap:.6rem;margin:1rem 0;padding:0;list-style:none}
.sums li{flex:1 1 9rem;border:1px solid var(--line);border-radius:.4rem;padding:.5rem .8rem;
background:var(--band)}
.sums b{display:block;font-size:1.15rem;font-variant-numeric:tabular-nums;overflow-wrap:anywhere}
.charts{display:grid;gap:1rem;grid-template-columns:repeat(auto-fit,minmax(min(100%,26rem),1fr))}
figure{margin:0;border:1px solid var(--line);border-radius:.4rem;padding:.6rem .8rem;
break-inside:avoid}
figcaption{font-size:.9rem}
.chart{display:block;width:100%;height:auto}
.chart text{font-size:11px;fill:var(--text)}
.end{text-anchor:end}
.grid{stroke:var(--line);stroke-width:1}
.patterns{position:absolute}
.ok{fill:var(--ok)}
.refused{fill:url(#hatch)}
.failed{fill:url(#dots)}
.refused,.failed{stroke:var(--text);stroke-width:.4}
.refused-ground{fill:var(--refused-ground)}
.refused-ink{fill:var(--refused-ink)}
.failed-ground{fill:var(--failed-ground)}
.failed-ink{fill:var(--failed-ink)}
.legend{display:flex;flex-wrap:wrap;gap:.2rem 1.2rem;list-style:none;margin:.4rem 0 1rem;padding:0}
.legend svg{width:1rem;height:1rem;vertical-align:-.15rem;margin-right:.3rem}
.scroll{overflow-x:auto;margin:.6rem 0 1rem}
table{border-collapse:collapse;width:100%;font-size:.9rem}
caption{text-align:left;padding:.2rem 0}
th,td{text-align:left;vertical-align:top;padding:.3rem .6rem;border-bottom:1px solid var(--line)}
thead th{background:var(--band);white-space:nowrap}
td{min-width:5rem;overflow-wrap:anywhere}
.number{text-align:right;font-variant-numeric:tabular-nums;white-space:nowrap}
.time,.hash{font-family:ui-monospace,"DejaVu Sans Mono",Consolas,monospace;font-size:.82rem}
.time{white-space:nowrap}
.hash{min-width:18rem;overflow-wrap:anywhere}
footer{padding-top:1rem;padding-bottom:2rem}
@media print{body{font-size:10pt}nav{display:none}.scroll{overflow:visible}
figure,tr{break-inside:avoid}thead{display:table-header-group}h2{break-after:avoid}
svg{print-color-adjust:exact;-webkit-print-color-adjust:exact}.time{white-space:normal}
.hash,td{min-width:0}}
)css";

}  // namespace kova::admin
