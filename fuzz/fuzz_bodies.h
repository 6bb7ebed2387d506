// The bodies of the fuzz targets. Each takes one input and returns empty text
// when every check held, or what broke. The libFuzzer entry points (built
// only with TSM_FUZZ) abort on a broken check; the regression test replays
// the inputs that once broke one, in every configuration.
//
// Threading: one input at a time, on one thread. The bodies that need a slice
// manager share one per process (a virtual clock, a simulated host).
#pragma once

#include <cstddef>
#include <cstdint>
#include <string>

namespace tsm::fuzz {

using Body = std::string (*)(const uint8_t* data, std::size_t size);

// The session text ("09:00~11:30;13:00~15:00") parsed into a security's table.
std::string FuzzSessionTable(const uint8_t* data, std::size_t size);
// The "|"-separated security information and its lots, through the slice size.
std::string FuzzSecurityInfo(const uint8_t* data, std::size_t size);
// The JSON document the host fills for the vault lookup, read for the sessions.
std::string FuzzVaultDocument(const uint8_t* data, std::size_t size);
// One string member of a field's JSON text (CBaseData::GetJsonString).
std::string FuzzJsonMember(const uint8_t* data, std::size_t size);
// "ExtCommands" normalisation.
std::string FuzzExtCommands(const uint8_t* data, std::size_t size);
// The slice id taken out of a command text.
std::string FuzzSliceId(const uint8_t* data, std::size_t size);
// WToL and WToI64 against the C library's conversion.
std::string FuzzDecimal(const uint8_t* data, std::size_t size);
// CString::Format with the component's formats against any arguments.
std::string FuzzFormat(const uint8_t* data, std::size_t size);
// The simulator's scenario reader.
std::string FuzzScenario(const uint8_t* data, std::size_t size);
// The simulator's golden transcript comparison (--expect).
std::string FuzzTranscript(const uint8_t* data, std::size_t size);
// The whole inbound surface: stages, topics, record changes, clock steps.
std::string FuzzInbound(const uint8_t* data, std::size_t size);

}  // namespace tsm::fuzz
