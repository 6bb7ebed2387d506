// The fixed identities of TradeSliceManager.dll in their registry text form
// (the IDL files carry the same values) and its registry names.
#pragma once

namespace tsm::module {

inline constexpr wchar_t kProgId[] = L"Norda.TradeSliceManager.1";
inline constexpr wchar_t kVersionIndependentProgId[] = L"Norda.TradeSliceManager";
inline constexpr wchar_t kClassDescription[] = L"TradeSliceManager Class";
inline constexpr wchar_t kClsidText[] = L"{49A73A32-E389-41B7-9937-C8A631784CD2}";
inline constexpr wchar_t kLibidText[] = L"{AC124D6F-B8CB-4AA3-BD14-A7CAE161065F}";
// The module's own registration block is run with this replacement; the
// block writes no key of its own.
inline constexpr wchar_t kAppidText[] = L"{2827AD18-4197-4DE3-8485-815AF6E35924}";
inline constexpr wchar_t kTypeLibVersion[] = L"1.0";
// The host's type library (tradeslice/norda_host.idl).
inline constexpr wchar_t kHostLibidText[] = L"{1D65B382-1D9D-40F1-A2DD-7703B94E9979}";

}  // namespace tsm::module
