#include <sstream>

#include "event_vocabulary.h"
#include "timeline_render.h"
#include "timeline_svg_layout.h"

namespace QUEX::Tandra::Timeline {

namespace {

constexpr const char* STYLE = R"(
body{font-family:"DejaVu Sans",Verdana,sans-serif;margin:0;background:#e2e8f0;color:#0f172a}
main{max-width:1440px;margin:0 auto;padding:16px}
.chart{background:#fff;border:1px solid #cbd5e1;border-radius:6px;overflow-x:auto}
.chart svg{display:block;max-width:100%;height:auto}
.mark{cursor:default}
#tip{position:fixed;z-index:9;max-width:520px;background:#0f172a;color:#f8fafc;font-size:12px;padding:8px 10px;
 border-radius:6px;box-shadow:0 4px 14px rgba(0,0,0,.3);pointer-events:none}
#tip b{display:block;margin-bottom:4px;font-size:13px}
#tip td{padding:1px 8px 1px 0;vertical-align:top;white-space:nowrap}
#tip td:first-child{color:#94a3b8}
h2{font-size:16px;margin:22px 0 8px}
table.events{border-collapse:collapse;background:#fff;font-size:12px;width:100%}
table.events th,table.events td{border-bottom:1px solid #e2e8f0;padding:3px 8px;text-align:left}
table.events th{background:#f1f5f9}
table.events td.t{font-family:"DejaVu Sans Mono",monospace;white-space:nowrap;color:#475569}
table.events tr:hover td{background:#fef9c3}
.dot{display:inline-block;width:9px;height:9px;border-radius:50%;margin-right:6px}
.dot.begun{background:#2563eb}.dot.ok{background:#16a34a}.dot.failed{background:#dc2626}
.dot.ended{background:#d97706}.dot.other{background:#64748b}
)";

// Builds the hover box with textContent only: event values never become markup.
constexpr const char* SCRIPT = R"(
(function(){
  var tip=document.getElementById('tip');
  function show(mark,e){
    var lines=mark.getAttribute('data-tip').split('\n');
    tip.replaceChildren();
    var head=document.createElement('b');head.textContent=lines[0];tip.appendChild(head);
    var table=document.createElement('table');
    for(var i=1;i<lines.length;i++){
      var at=lines[i].indexOf(': ');var row=table.insertRow();
      row.insertCell().textContent=at<0?'':lines[i].slice(0,at);
      row.insertCell().textContent=at<0?lines[i]:lines[i].slice(at+2);
    }
    tip.appendChild(table);tip.hidden=false;
    var x=e.clientX+14,y=e.clientY+14,r=tip.getBoundingClientRect();
    if(x+r.width>window.innerWidth-8)x=e.clientX-r.width-14;
    if(y+r.height>window.innerHeight-8)y=Math.max(8,e.clientY-r.height-14);
    tip.style.left=x+'px';tip.style.top=y+'px';
  }
  document.querySelectorAll('.mark').forEach(function(m){
    m.addEventListener('mousemove',function(e){show(m,e);});
    m.addEventListener('mouseleave',function(){tip.hidden=true;});
  });
})();
)";

}  // namespace

std::string RenderHtml(const Timeline& timeline, const RenderOptions& options)
{
    std::ostringstream html;
    html << "<!DOCTYPE html>\n<html lang=\"en\">\n<head>\n<meta charset=\"utf-8\">\n<title>" << EscapeXml(options.title)
         << "</title>\n<style>" << STYLE << "</style>\n</head>\n<body>\n<main>\n";
    html << "<div class=\"chart\">\n"
         << SvgBody(timeline, LayOut(timeline, options.width), options, false) << "</div>\n";
    html << "<div id=\"tip\" hidden></div>\n";
    html << "<h2>Side by side</h2>\n<table class=\"events\">\n<tr><th>time</th>";
    for (const std::string& lane : timeline.lanes) {
        html << "<th>" << EscapeXml(lane) << "</th>";
    }
    html << "</tr>\n";
    for (const TimelineEvent& event : timeline.events) {
        size_t lane = timeline.LaneOf(event);
        html << "<tr><td class=\"t\">" << EscapeXml(FormatOffset(event.timeMs - timeline.startMs)) << "</td>";
        for (size_t i = 0; i < timeline.lanes.size(); ++i) {
            html << "<td>";
            if (i == lane) {
                html << "<span class=\"dot " << ResultClass(event) << "\"></span>" << EscapeXml(Caption(event));
                if (event.state != 0) {
                    html << " &middot; " << EscapeXml(StateName(event.state));
                }
            }
            html << "</td>";
        }
        html << "</tr>\n";
    }
    html << "</table>\n</main>\n<script>" << SCRIPT << "</script>\n</body>\n</html>\n";
    return html.str();
}

}  // namespace QUEX::Tandra::Timeline
