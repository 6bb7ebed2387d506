# The project's version where code and binaries can see it:
#   tradeslice/version.h  generated into the build's include folder (and
#                         installed with the public headers);
#   tsm_version_resource(target)  on Windows, a version resource (file and
#                         product version, names) linked into the target;
#                         tsm_target does it for every SHARED target.

set(TSM_GENERATED_INCLUDE ${PROJECT_BINARY_DIR}/include)
configure_file(${CMAKE_CURRENT_LIST_DIR}/version.h.in ${TSM_GENERATED_INCLUDE}/tradeslice/version.h @ONLY)

if(WIN32)
  enable_language(RC)
endif()

set(_tsm_version_rc_template [=[
#include <winver.h>

VS_VERSION_INFO VERSIONINFO
 FILEVERSION @PROJECT_VERSION_MAJOR@,@PROJECT_VERSION_MINOR@,@PROJECT_VERSION_PATCH@,0
 PRODUCTVERSION @PROJECT_VERSION_MAJOR@,@PROJECT_VERSION_MINOR@,@PROJECT_VERSION_PATCH@,0
 FILEFLAGSMASK VS_FFI_FILEFLAGSMASK
 FILEFLAGS 0
 FILEOS VOS_NT_WINDOWS32
 FILETYPE VFT_DLL
 FILESUBTYPE VFT2_UNKNOWN
BEGIN
  BLOCK "StringFileInfo"
  BEGIN
    BLOCK "040904B0"
    BEGIN
      VALUE "FileDescription", "$<TARGET_PROPERTY:@TSM_RC_TARGET@,TSM_DESCRIPTION>"
      VALUE "FileVersion", "@PROJECT_VERSION@"
      VALUE "InternalName", "$<TARGET_FILE_BASE_NAME:@TSM_RC_TARGET@>"
      VALUE "OriginalFilename", "$<TARGET_FILE_NAME:@TSM_RC_TARGET@>"
      VALUE "ProductName", "@PROJECT_NAME@"
      VALUE "ProductVersion", "@PROJECT_VERSION@"
    END
  END
  BLOCK "VarFileInfo"
  BEGIN
    VALUE "Translation", 0x409, 1200
  END
END
]=])

# Names come from the target at generation time: a target that renames its
# output keeps a matching "OriginalFilename", and the description is its
# TSM_DESCRIPTION property (the target's name until someone sets it).
function(tsm_version_resource target)
  if(NOT WIN32)
    return()
  endif()
  set_target_properties(${target} PROPERTIES TSM_DESCRIPTION ${target})
  set(TSM_RC_TARGET ${target})
  string(CONFIGURE "${_tsm_version_rc_template}" content @ONLY)
  file(GENERATE OUTPUT ${CMAKE_CURRENT_BINARY_DIR}/${target}_version.rc CONTENT "${content}")
  target_sources(${target} PRIVATE ${CMAKE_CURRENT_BINARY_DIR}/${target}_version.rc)
endfunction()
