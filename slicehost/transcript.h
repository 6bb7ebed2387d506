// The transcript of a run: one JSON object per line (JSON Lines), one line per
// event, in the order the events happened. Calls across the host link use
// exactly these keys:
//   {"t":N,"ev":"SetStage","kind":1,"stage":2}
//   {"t":N,"ev":"SetTopic","topic":"...","p1":0,"p2":0,"text":"...","data":D}
//   {"t":N,"ev":"RegisterTopic","topic":"..."}
//   {"t":N,"ev":"GetTopicData","topic":"..."}
//   {"t":N,"ev":"SendTopic","topic":"...","p1":1,"p2":2,"text":"...","data":D}
//   {"t":N,"ev":"WriteLog","line":"<CTradeSliceManager>..."}
// The simulator's own events (the exchange's acknowledgements, fills,
// cancels; the host's record writes) have other "ev" names and the keys
// "subject" (an order's level key, a symbol or a record), "exec_type" (when
// one was written) and "text". t is simulated milliseconds since the start;
// texts are UTF-8.
//
// Threading: pure functions; no shared state.
#pragma once

#include <optional>
#include <string>
#include <vector>

#include "slicehost/sim_host.h"

namespace tsm::sim {

// One transcript line, without the line break.
std::string TranscriptLine(const HostEvent& event);

// The whole transcript, every line ended by "\n".
std::string TranscriptText(const std::vector<HostEvent>& events);

// Writes the transcript (bytes as they are: "\n" on every platform). False
// with `error` set when the file cannot be written.
bool WriteTranscript(const std::string& path, const std::vector<HostEvent>& events, std::string* error);

// Compares a transcript with its golden text, line by line ("\r\n" counts as
// "\n"). Nothing when they agree; otherwise the first difference as
// "line N:\n  expected: ...\n  actual:   ...".
std::optional<std::string> CompareTranscripts(const std::string& golden, const std::string& actual);

// Reads a whole file as bytes; false when it cannot be read.
bool ReadFileBytes(const std::string& path, std::string* out);
// Writes `bytes` to `path`, replacing it; on failure says why in `error`.
bool WriteFileBytes(const std::string& path, const std::string& bytes, std::string* error);

}  // namespace tsm::sim
