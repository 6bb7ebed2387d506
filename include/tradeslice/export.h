// Symbol visibility of the shared libraries a host links against.
#pragma once

#if defined(_WIN32)
#define TSM_DLL_EXPORT __declspec(dllexport)
#define TSM_DLL_IMPORT __declspec(dllimport)
#else
#define TSM_DLL_EXPORT __attribute__((visibility("default")))
#define TSM_DLL_IMPORT __attribute__((visibility("default")))
#endif

#if defined(TSM_BUILDING_BASEDATA)
#define TSM_BASEDATA_API TSM_DLL_EXPORT
#else
#define TSM_BASEDATA_API TSM_DLL_IMPORT
#endif

#if defined(TSM_BUILDING_COMPONENT)
#define TSM_COMPONENT_API TSM_DLL_EXPORT
#else
#define TSM_COMPONENT_API TSM_DLL_IMPORT
#endif
