#include "slicehost/timeline.h"

#include <cstdio>

#include "data/text.h"
#include "slicehost/exchange.h"

namespace tsm::sim {

namespace {

std::string Shorten(const std::string& text, size_t width) {
  if (text.size() <= width) return text;
  size_t cut = width - 3;
  while (cut > 0 && (static_cast<unsigned char>(text[cut]) & 0xC0) == 0x80) --cut;  // whole UTF-8 characters
  return text.substr(0, cut) + "...";
}

// The interesting pairs of a new-order command, in a fixed order.
std::string CommandGist(const std::wstring& command) {
  static const wchar_t* const kKeys[] = {L"SYMBOL", L"SIDE", L"QTY", L"PRICE", L"SlicedID", L"SlicedType", L"GROUPID"};
  std::wstring gist;
  for (const wchar_t* key : kKeys) {
    const std::wstring value = CommandValue(command, key);
    if (value.empty()) continue;
    gist += (gist.empty() ? L"" : L" ") + std::wstring(key) + L"=" + value;
  }
  return Utf8FromWide(gist);
}

}  // namespace

std::string Pad(std::string text, size_t width) {
  if (text.size() < width) text.append(width - text.size(), ' ');
  return text;
}

std::string FormatSimTime(int64_t ms) {
  if (ms < 0) return "-";
  char buffer[32];
  const int64_t h = ms / 3600000, m = ms / 60000 % 60, s = ms / 1000 % 60, f = ms % 1000;
  if (h > 0) {
    std::snprintf(buffer, sizeof buffer, "%lld:%02lld:%02lld.%03lld", static_cast<long long>(h),
                  static_cast<long long>(m), static_cast<long long>(s), static_cast<long long>(f));
  } else {
    std::snprintf(buffer, sizeof buffer, "%02lld:%02lld.%03lld", static_cast<long long>(m), static_cast<long long>(s),
                  static_cast<long long>(f));
  }
  return buffer;
}

std::string TimelineLine(const HostEvent& e, bool verbose) {
  const std::string time = FormatSimTime(e.t_ms);
  const std::string topic = Utf8FromWide(e.topic);
  const std::string text = Utf8FromWide(e.text);
  auto line = [&](const char* direction, const std::string& what, const std::string& detail) {
    return Pad(time, 10) + "  " + direction + "  " + Pad(what, 28) + "  " + Shorten(detail, 100);
  };
  if (e.ev == "SetStage") return line("->", "SetStage", "kind=" + std::to_string(e.p1) + " stage=" + std::to_string(e.p2));
  if (e.ev == "SetTopic") {
    std::string detail = text;
    if (e.data_json != "null" && !e.data_json.empty()) detail += (detail.empty() ? "" : " ") + e.data_json;
    if (e.p2 != 0) detail = "p2=" + std::to_string(e.p2) + (detail.empty() ? "" : " ") + detail;
    return line("->", topic, detail);
  }
  if (e.ev == "SendTopic") {
    if (e.topic == L"MARZIPAN.REQUEST" && !verbose) return {};
    std::string detail = e.topic == L"TRADE.NEWORDER" || e.topic == L"TRADE.FAILORDER" ? CommandGist(e.text) : text;
    if (e.data_json != "null" && !e.data_json.empty()) detail += (detail.empty() ? "" : " ") + e.data_json;
    return line("<-", topic, detail);
  }
  if (e.ev == "WriteLog") {
    // Without --verbose only the lines that explain a pause or a refusal.
    const bool notable = text.find("CheckOpenCloseTime:0,") != std::string::npos ||
                         text.find("not exist") != std::string::npos || text.find("error:") != std::string::npos ||
                         text.find(" Fail:") != std::string::npos;
    const std::string prefix = "<CTradeSliceManager>";
    const std::string shown = text.rfind(prefix, 0) == 0 ? text.substr(prefix.size()) : text;
    return verbose || notable ? line("..", "log", shown) : std::string();
  }
  if (e.ev == "RegisterTopic" || e.ev == "GetTopicData") return verbose ? line("<-", e.ev, topic) : std::string();
  std::string what = e.ev;
  if (what.rfind("Exchange", 0) == 0) what = "exchange " + what.substr(8);
  if (what.rfind("Host", 0) == 0) what = "host " + what.substr(4);
  return line("  ", what + " " + topic, text);
}

}  // namespace tsm::sim
