// The targets over pure text: "ExtCommands", the slice id of a command, the
// decimal conversions, the formatter, and the simulator's two readers.
#include <cerrno>
#include <climits>
#include <cstdio>
#include <cwchar>
#include <string>
#include <vector>

#include "data/text.h"
#include "fuzz/command_shape.h"
#include "fuzz/fuzz_bodies.h"
#include "fuzz/fuzz_input.h"
#include "slicehost/scenario.h"
#include "slicehost/transcript.h"
#include "slicing/command_format.h"

namespace tsm::fuzz {

namespace {

std::vector<std::wstring> Split(const std::wstring& text, wchar_t separator) {
  std::vector<std::wstring> items;
  std::size_t start = 0;
  for (;;) {
    const std::size_t end = text.find(separator, start);
    items.push_back(text.substr(start, end == std::wstring::npos ? std::wstring::npos : end - start));
    if (end == std::wstring::npos) return items;
    start = end + 1;
  }
}

bool EqualsNoCase(const std::wstring& a, const std::wstring& b) {
  if (a.size() != b.size()) return false;
  for (std::size_t i = 0; i < a.size(); ++i) {
    wchar_t x = a[i], y = b[i];
    if (x >= L'A' && x <= L'Z') x = static_cast<wchar_t>(x - L'A' + L'a');
    if (y >= L'A' && y <= L'Z') y = static_cast<wchar_t>(y - L'A' + L'a');
    if (x != y) return false;
  }
  return true;
}

// The C library's conversion of the same text, saturated to `low`..`high`.
// Characters beyond ASCII end the number for both; only ASCII white space
// leads it.
int64_t LibraryDecimal(std::wstring text, int64_t low, int64_t high) {
  for (wchar_t& c : text) {
    if (c == 0 || static_cast<uint32_t>(c) > 0x7F) c = L'x';
  }
  errno = 0;
  const long long value = std::wcstoll(text.c_str(), nullptr, 10);
  if (value < low) return low;
  if (value > high) return high;
  return value;
}

// The formats the component fills (log lines, commands, keys, requests).
const std::vector<std::wstring>& ComponentFormats() {
  static const std::vector<std::wstring> formats = {
      CommandTemplateText(CommandTemplate::kA),
      CommandTemplateText(CommandTemplate::kB),
      L"%s-#-Sliced-#-%ld",
      L"%s-#-Sliced-#-%d",
      L"%s;%s=%s",
      L"%s=%s",
      L"FitOrderFreq=1;%s",
      L"FlowControl=1;%s",
      L"%s~%s",
      L"%s%s",
      L"%s,%s",
      L"%ld,%ld,%ld",
      L"%x.%d",
      L"%d",
      L"%ld",
      L"LevelKey=%s",
      L"REPORTID=%s",
      L"REPORTID=%s,TYPE=6,TIMEINFORCE=1",
      L"<CTradeSliceManager>%s",
      L"SetTopic:%s, %s",
      L"Cancel All SliceOrder Fail:%s != %s",
      L"CancelSliceOrder:%s, %s, %x, %x, %x",
      L"ComputeSliceQty: spread -1 ignored, DiscloseQty=%ld, Variance=%ld",
      L"DoSlicedAll :SendNewOrder NewOrderQty=%ld, TotalQty=%ld",
      L"DoSlicedWork : SlicedID=%s, NewOrderQty=%ld, TotalQty=%ld, LeavesQty=%ld, CumQty=%ld, ",
      L"DoSlicedWork :SendNewOrder NewOrderQty=%ld, TotalQty=%ld, LeavesQty=%ld, Type=%d",
      L"InitSecurityInfo fail:%s",
      L"KeepSliceOrder(1):%s,%ld,%ld,%ld, lOrdIndex=%ld",
      L"OnDataUpdate : LevelKey=%s, SliceID=%s, ExecType=%ld",
      L"OpenCloseTime:%s, %s.",
      L"ParseOrderInfo: LevelKey=%s, ExecType=%ld, SliceID=%s, GroupType=%ld",
      L"Timer Order: Interval=%d, LeftoverAction=%d",
      L"Volume OrderInfo: Symbol=%s, TradeVolume=%I64d",
      L"[Sliced Send End order] error:%s, %ld, %x, %x",
      L"%s\\Components\\QX_DataBase64.dll",
  };
  return formats;
}

// The C library's wide printf for a format and arguments of the right kinds:
// %ld is 32-bit as on Windows, %I64d is %lld, text is %ls.
std::wstring LibraryFormat(const std::wstring& format, const std::vector<text_internal::FormatArg>& args) {
  std::wstring out;
  std::size_t next = 0;
  text_internal::FormatStep step;
  for (const wchar_t* p = format.c_str(); p != nullptr;) {
    p = text_internal::ReadStep(p, &step);
    out += step.literal;
    if (step.conversion == L'\0') continue;
    if (step.conversion == L'%') {
      out += L'%';
      continue;
    }
    const text_internal::FormatArg& arg = args[next++];
    wchar_t buffer[64];
    if (step.conversion == L's') {
      out.append(arg.text, arg.text_length);
      continue;
    }
    const wchar_t* number_format = step.wide64 ? L"%lld" : L"%d";
    const wchar_t* hex_format = step.wide64 ? L"%llx" : L"%x";
    if (step.conversion == L'd') {
      if (step.wide64) {
        std::swprintf(buffer, 64, number_format, static_cast<long long>(arg.number));
      } else {
        std::swprintf(buffer, 64, number_format, static_cast<int>(static_cast<int32_t>(arg.number)));
      }
    } else {
      std::swprintf(buffer, 64, hex_format, static_cast<unsigned>(static_cast<uint32_t>(arg.number)));
    }
    out += buffer;
  }
  return out;
}

}  // namespace

std::string FuzzExtCommands(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  const uint8_t flags = in.Byte();
  const int32_t fit = (flags & 1) != 0 ? 1 : static_cast<int32_t>(flags >> 2);
  const int32_t flow = (flags & 2) != 0 ? 1 : 0;
  const std::wstring input = WideFromUtf8(in.Rest());
  const std::wstring result = NormaliseExtCommands(input, fit, flow).wstr();
  if (fit == 1 && result.find(L"FitOrderFreq") == std::wstring::npos) return "FitOrderFreq missing";
  if (flow == 1 && result.find(L"FlowControl") == std::wstring::npos) return "FlowControl missing";
  if (result.empty()) return {};
  const std::vector<std::wstring> items = Split(result, L';');
  for (std::size_t i = 0; i < items.size(); ++i) {
    const std::wstring& item = items[i];
    // Only a flag put in front of an otherwise empty list leaves an empty
    // item, the last one.
    if (item.empty()) {
      if (i + 1 != items.size() || i == 0) return "an empty item in the middle";
      continue;
    }
    const std::size_t equals = item.find(L'=');
    if (equals == std::wstring::npos) return "an item without \"=\"";
    if (EqualsNoCase(item.substr(0, equals), L"CancelCloseWorking")) return "a CancelCloseWorking item kept";
  }
  if (fit != 1 && flow != 1 && NormaliseExtCommands(result, 0, 0).wstr() != result) {
    return "normalising twice changes the text";
  }
  return {};
}

std::string FuzzSliceId(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  if (in.Byte() % 2 == 0) {
    const std::wstring command = WideFromUtf8(in.Rest());
    const std::wstring id = ExtractSlicedId(command).wstr();
    if (id.find(L',') != std::wstring::npos) return "a slice id holding a comma";
    const std::size_t at = command.find(L"SlicedID=");
    if (!id.empty() && command.compare(at + 9, id.size() + 1, id + L",") != 0) return "the id is not what follows SlicedID=";
    if (at != std::wstring::npos && command.find(L',', at + 9) != std::wstring::npos &&
        id.size() != command.find(L',', at + 9) - at - 9) {
      return "the id does not reach the next comma";
    }
    return {};
  }
  // A command built from fields: its slice id comes back out whole unless a
  // field before it holds "SlicedID=" or the id holds a comma.
  CommandFields f;
  f.type = in.Text(8);
  f.symbol = in.Text(16);
  f.user_key3 = in.Text(16);
  f.group_id = in.Text(16);
  f.sliced_id = in.Text(24);
  f.ext_commands = in.Text(24);
  f.qty = in.I32();
  f.price = in.I64();
  const std::wstring command = FormatCommand(in.Bool() ? CommandTemplate::kA : CommandTemplate::kB, f).wstr();
  if (!IsNewOrderCommand(command)) return "a built command does not match its template";
  const std::wstring id = ExtractSlicedId(command).wstr();
  bool earlier_key = false;
  for (const CString* field : {&f.type, &f.symbol, &f.user_key3, &f.group_id}) {
    earlier_key = earlier_key || field->Find(L"SlicedID=") >= 0;
  }
  if (!earlier_key && f.sliced_id.Find(L',') < 0 && id != f.sliced_id.wstr()) {
    return "the slice id did not come back out of the command";
  }
  return {};
}

std::string FuzzDecimal(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  std::wstring text;
  if (in.Byte() % 2 == 0) {
    text = WideFromUtf8(in.Rest());
  } else {
    // Any code unit, two bytes each.
    while (in.Remaining() >= 2) {
      const unsigned high = in.Byte();
      text += static_cast<wchar_t>((high << 8) | in.Byte());
    }
  }
  if (WToL(text) != LibraryDecimal(text, INT32_MIN, INT32_MAX)) return "WToL differs from the C library";
  if (WToI64(text) != LibraryDecimal(text, INT64_MIN, INT64_MAX)) return "WToI64 differs from the C library";
  return {};
}

std::string FuzzFormat(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  const std::vector<std::wstring>& formats = ComponentFormats();
  const std::wstring& format = formats[in.Below(static_cast<uint32_t>(formats.size()))];
  std::vector<text_internal::FormatStep> steps;
  text_internal::FormatStep step;
  for (const wchar_t* p = format.c_str(); p != nullptr;) {
    p = text_internal::ReadStep(p, &step);
    steps.push_back(step);
  }
  // Arguments of the kinds the conversions ask for, or (the input decides)
  // of any kind and any number.
  const bool any_kind = in.Bool();
  std::vector<std::wstring> texts;
  std::vector<text_internal::FormatArg> args;
  texts.reserve(64);
  std::size_t wanted = 0;
  for (const auto& s : steps) wanted += s.conversion != L'\0' && s.conversion != L'%' ? 1 : 0;
  const std::size_t count = any_kind ? in.Below(64) : wanted;
  for (std::size_t i = 0; i < count; ++i) {
    bool text = i < wanted;
    if (text) {
      std::size_t n = 0;
      for (const auto& s : steps) {
        if (s.conversion == L'\0' || s.conversion == L'%') continue;
        if (n++ == i) text = s.conversion == L's';
      }
    }
    if (any_kind) text = in.Bool();
    if (text) {
      std::wstring t = in.Text(40);
      for (wchar_t& c : t) c = c == 0 ? L'0' : c;
      texts.push_back(std::move(t));
      args.push_back({text_internal::FormatArg::Kind::kText, 0, texts.back().c_str(), texts.back().size()});
    } else {
      args.push_back({in.Bool() ? text_internal::FormatArg::Kind::kSigned : text_internal::FormatArg::Kind::kUnsigned,
                      in.I64()});
    }
  }
  const std::wstring direct = text_internal::FormatArgs(format.c_str(), args.data(), args.size());
  const std::wstring prepared = text_internal::FormatPrepared(steps.data(), steps.size(), args.data(), args.size());
  if (direct != prepared) return "the prepared format and CString::Format differ";
  if (!any_kind && direct != LibraryFormat(format, args)) return "CString::Format differs from the C library";
  if (!any_kind && (format == CommandTemplateText(CommandTemplate::kA) ||
                    format == CommandTemplateText(CommandTemplate::kB)) && !IsNewOrderCommand(direct)) {
    return "a filled template does not read back as a command";
  }
  return {};
}

std::string FuzzScenario(const uint8_t* data, std::size_t size) {
  const std::string text(reinterpret_cast<const char*>(data), size);
  const auto result = sim::ParseScenario(text, "fuzz.json");
  if (const auto* error = std::get_if<sim::ScenarioError>(&result)) {
    if (error->message.rfind("fuzz.json", 0) != 0) return "an error that does not name the file";
  }
  return {};
}

std::string FuzzTranscript(const uint8_t* data, std::size_t size) {
  FuzzInput in(data, size);
  const std::size_t high = in.Byte();
  const std::size_t golden_size = (high << 8 | in.Byte()) % (size + 1);
  const std::string golden(in.Bytes(golden_size));
  const std::string actual(in.Rest());
  if (sim::CompareTranscripts(golden, golden)) return "a transcript differs from itself";
  // Lines as the comparison reads them: "\n" ends one, a "\r" before it drops.
  auto lines = [](const std::string& text) {
    std::vector<std::string> out;
    std::size_t start = 0;
    while (start < text.size()) {
      std::size_t end = text.find('\n', start);
      if (end == std::string::npos) end = text.size();
      std::string line = text.substr(start, end - start);
      if (!line.empty() && line.back() == '\r') line.pop_back();
      out.push_back(line);
      start = end + 1;
    }
    return out;
  };
  const auto want = lines(golden), got = lines(actual);
  const auto difference = sim::CompareTranscripts(golden, actual);
  if (difference.has_value() != (want != got)) return "the comparison disagrees with a line-by-line reading";
  if (difference) {
    std::size_t n = 0;
    while (n < want.size() && n < got.size() && want[n] == got[n]) ++n;
    const std::string head = "line " + std::to_string(n + 1) + ":\n  expected: ";
    if (difference->rfind(head, 0) != 0) return "the first difference is reported at the wrong line";
  }
  return {};
}

}  // namespace tsm::fuzz
