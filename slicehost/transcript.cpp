#include "slicehost/transcript.h"

#include <algorithm>
#include <fstream>
#include <sstream>

#include "data/text.h"

namespace tsm::sim {

namespace {

std::vector<std::string> Lines(const std::string& text) {
  std::vector<std::string> lines;
  size_t start = 0;
  while (start < text.size()) {
    size_t end = text.find('\n', start);
    if (end == std::string::npos) end = text.size();
    std::string line = text.substr(start, end - start);
    if (!line.empty() && line.back() == '\r') line.pop_back();
    lines.push_back(std::move(line));
    start = end + 1;
  }
  return lines;
}

std::string Data(const HostEvent& event) { return event.data_json.empty() ? "null" : event.data_json; }

}  // namespace

std::string TranscriptLine(const HostEvent& e) {
  std::string line = "{\"t\":" + std::to_string(e.t_ms) + ",\"ev\":" + JsonString(WideFromUtf8(e.ev));
  if (e.ev == "SetStage") {
    line += ",\"kind\":" + std::to_string(e.p1) + ",\"stage\":" + std::to_string(e.p2);
  } else if (e.ev == "SetTopic" || e.ev == "SendTopic") {
    line += ",\"topic\":" + JsonString(e.topic) + ",\"p1\":" + std::to_string(e.p1) + ",\"p2\":" + std::to_string(e.p2) +
            ",\"text\":" + JsonString(e.text) + ",\"data\":" + Data(e);
  } else if (e.ev == "RegisterTopic" || e.ev == "GetTopicData") {
    line += ",\"topic\":" + JsonString(e.topic);
  } else if (e.ev == "WriteLog") {
    line += ",\"line\":" + JsonString(e.text);
  } else {
    line += ",\"subject\":" + JsonString(e.topic);
    if (e.p1 != -1) line += ",\"exec_type\":" + std::to_string(e.p1);
    line += ",\"text\":" + JsonString(e.text);
  }
  return line + "}";
}

std::string TranscriptText(const std::vector<HostEvent>& events) {
  std::string text;
  for (const HostEvent& e : events) text += TranscriptLine(e) + "\n";
  return text;
}

bool WriteTranscript(const std::string& path, const std::vector<HostEvent>& events, std::string* error) {
  return WriteFileBytes(path, TranscriptText(events), error);
}

std::optional<std::string> CompareTranscripts(const std::string& golden, const std::string& actual) {
  const std::vector<std::string> want = Lines(golden);
  const std::vector<std::string> got = Lines(actual);
  const size_t n = std::max(want.size(), got.size());
  for (size_t i = 0; i < n; ++i) {
    const std::string* w = i < want.size() ? &want[i] : nullptr;
    const std::string* g = i < got.size() ? &got[i] : nullptr;
    if (w != nullptr && g != nullptr && *w == *g) continue;
    return "line " + std::to_string(i + 1) + ":\n  expected: " + (w != nullptr ? *w : "(end of transcript)") +
           "\n  actual:   " + (g != nullptr ? *g : "(end of transcript)");
  }
  return std::nullopt;
}

bool ReadFileBytes(const std::string& path, std::string* out) {
  std::ifstream in(path, std::ios::binary);
  if (!in) return false;
  std::ostringstream text;
  text << in.rdbuf();
  if (in.bad()) return false;
  *out = text.str();
  return true;
}

bool WriteFileBytes(const std::string& path, const std::string& bytes, std::string* error) {
  std::ofstream out(path, std::ios::binary | std::ios::trunc);
  if (!out) {
    if (error != nullptr) *error = path + ": cannot be opened for writing";
    return false;
  }
  out.write(bytes.data(), static_cast<std::streamsize>(bytes.size()));
  out.close();
  if (!out) {
    if (error != nullptr) *error = path + ": cannot be written";
    return false;
  }
  return true;
}

}  // namespace tsm::sim
