#pragma once
// How the page of a report looks: on wide and narrow screens, light and dark, and on paper.

namespace Vexctl {

inline constexpr const char* reportStyle = R"css(
:root{--back:#f5f6f8;--card:#fff;--text:#1c2430;--faint:#5d6878;--edge:#d9dee6;--line:#2563a8;--area:#2563a822;
--good:#2f8f4e;--warn:#b7791f;--bad:#c53030;--rest:#e3e7ed}
@media screen and (prefers-color-scheme:dark){:root{--back:#12161c;--card:#1b212a;--text:#e3e8ef;--faint:#97a3b4;
--edge:#313a47;--line:#6aaaf0;--area:#6aaaf02b;--good:#48b06b;--warn:#d9a441;--bad:#ef6b6b;--rest:#2c3440}}
*{box-sizing:border-box}
body{margin:0;background:var(--back);color:var(--text);
font:15px/1.5 system-ui,-apple-system,"Segoe UI",Roboto,"DejaVu Sans",sans-serif}
main{max-width:1080px;margin:0 auto;padding:24px 20px 40px}
h1{font-size:1.6rem;line-height:1.25;margin:0;overflow-wrap:anywhere}
h2{font-size:1.1rem;margin:0 0 12px}
h3{font-size:1rem;margin:16px 0 8px;overflow-wrap:anywhere}
h4{font-size:.9rem;margin:12px 0 6px;color:var(--faint);overflow-wrap:anywhere}
header p,small,.none{color:var(--faint)}
header p{margin:4px 0 0}
.none{margin:0}
section,.card{background:var(--card);border:1px solid var(--edge);border-radius:10px}
section{padding:16px 18px;margin-top:16px}
section>:first-child+h3,article:first-of-type h3{margin-top:0}
.cards{display:grid;grid-template-columns:repeat(auto-fit,minmax(150px,1fr));gap:12px;margin-top:18px}
.card{padding:12px 14px;display:flex;flex-direction:column;gap:2px;min-width:0}
.card span{color:var(--faint);font-size:.85rem}
.card b{font-size:1.2rem;line-height:1.35;font-weight:600}
.card small,td small{font-size:.8rem;overflow-wrap:anywhere}
td small{display:block;color:var(--faint)}
.card .pill,.pill{display:inline-block;padding:0 .6em;border-radius:99px;color:#fff;font-size:.85rem;font-weight:600;
white-space:nowrap}
.card .pill{font-size:1rem}
@media screen and (prefers-color-scheme:dark){.card .pill,.pill{color:#10141a}}
.pill.good{background:var(--good)}.pill.warn{background:var(--warn)}.pill.bad{background:var(--bad)}
dl{display:grid;grid-template-columns:minmax(110px,max-content) 1fr;gap:4px 18px;margin:0}
dt{color:var(--faint);overflow-wrap:anywhere}
dd{margin:0;overflow-wrap:anywhere;min-width:0}
dt,dd,td,pre,h3,h4,li{unicode-bidi:isolate}
.problems{margin:0;padding-left:20px;overflow-wrap:anywhere}
figure{margin:0 0 22px}
figure:last-child{margin-bottom:0}
figcaption{margin-bottom:6px}
figcaption span{color:var(--faint);font-size:.85rem}
svg{display:block;width:100%}
.plot{display:grid;grid-template-columns:76px minmax(0,1fr);gap:10px;height:130px}
.scale{display:flex;flex-direction:column;justify-content:space-between;text-align:right;color:var(--faint);
font-size:.75rem;line-height:1;white-space:nowrap}
.curve{height:130px;overflow:visible}
.strip{height:26px;background:var(--rest);border-radius:4px;margin-left:86px;width:calc(100% - 86px)}
.axis{display:flex;justify-content:space-between;margin:5px 0 0 86px;color:var(--faint);font-size:.75rem}
.line{fill:none;stroke:var(--line);stroke-width:1.6px;stroke-linejoin:round;stroke-linecap:round;
vector-effect:non-scaling-stroke}
.area{fill:var(--area)}
.grid{fill:none;stroke:var(--edge);stroke-width:1px;vector-effect:non-scaling-stroke}
.moment{fill:none;stroke-width:3px;vector-effect:non-scaling-stroke}
rect.good{fill:var(--good)}rect.warn{fill:var(--warn)}rect.bad{fill:var(--bad)}rect.rest{fill:var(--rest)}
.moment.good{stroke:var(--good)}.moment.warn{stroke:var(--warn)}.moment.bad{stroke:var(--bad)}
.bar{height:12px;min-width:70px;border-radius:3px}
.wide{overflow-x:auto}
table{border-collapse:collapse;width:100%;font-variant-numeric:tabular-nums}
th{text-align:left;color:var(--faint);font-weight:500;font-size:.85rem}
th,td{padding:6px 14px 6px 0;vertical-align:top;border-bottom:1px solid var(--edge)}
tbody tr:last-child td{border-bottom:0}
th:last-child,td:last-child{padding-right:0}
td:first-child{white-space:nowrap}
.stack td:last-child{overflow-wrap:anywhere;width:100%}
.stack td{white-space:nowrap}
.stack td:last-child{white-space:normal}
.disks td{vertical-align:middle;white-space:nowrap}
.disks td:nth-child(3){width:50%}
.disks td:first-child{white-space:normal;overflow-wrap:anywhere;min-width:90px}
pre{margin:0;padding:10px 12px;background:var(--back);border:1px solid var(--edge);border-radius:6px;
font:13px/1.45 ui-monospace,"DejaVu Sans Mono",monospace;white-space:pre-wrap;overflow-wrap:anywhere}
article+article{border-top:1px solid var(--edge);margin-top:14px;padding-top:2px}
@media (max-width:600px){
main{padding:16px 12px 28px}
section{padding:14px}
.cards{grid-template-columns:1fr 1fr;gap:10px}
.plot{grid-template-columns:62px minmax(0,1fr);gap:8px}
.strip{margin-left:70px;width:calc(100% - 70px)}
.axis{margin-left:70px}
.disks th:nth-child(3),.disks td:nth-child(3){display:none}
.stack thead{display:none}
.stack tr{display:block;padding:8px 0;border-bottom:1px solid var(--edge)}
.stack tr:last-child{border-bottom:0}
.stack td{display:inline-block;border:0;padding:0 10px 0 0;color:var(--faint);font-size:.85rem}
.stack td:last-child{display:block;padding:2px 0 0;color:var(--text);font-size:1rem}
}
@media print{
@page{margin:14mm}
body{background:#fff;font-size:10.5pt}
main{max-width:none;padding:0 1px}
section,.card{border-color:#bbb}
section{padding:10px 12px}
figure,.card,tr,dt,dd,h2,h3,h4{break-inside:avoid}
h2,h3,h4,thead{break-after:avoid}
.wide{overflow:visible}
*{-webkit-print-color-adjust:exact;print-color-adjust:exact}
}
)css";

} // namespace Vexctl
