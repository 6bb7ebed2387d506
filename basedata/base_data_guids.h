// The fixed identities of the base-data component's automation surface, in
// their registry text form (the type library in basedata/win/qx_data.idl
// carries the same values). Records parse them with CLSIDFromString.
#pragma once

namespace tsm {

inline constexpr wchar_t kBaseDataProgId[] = L"QX_Data.BaseData.1";
inline constexpr wchar_t kBaseDataFileName[] = L"QX_DataBase64.dll";
inline constexpr wchar_t kBaseDataClsidText[] = L"{17F24697-A82D-4861-A0F1-9AAC7468B8E4}";
inline constexpr wchar_t kBaseDataIidText[] = L"{97317107-0418-4767-A4E5-FF14228A6FAF}";
inline constexpr wchar_t kBaseDataEventsIidText[] = L"{B4E367E4-9594-42B5-B678-FFDABC0CD722}";
inline constexpr wchar_t kBaseDataLibidText[] = L"{CBE5F501-2178-4097-AC9A-FDCF46065E59}";

}  // namespace tsm
