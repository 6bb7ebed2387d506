# Type libraries and COM headers from IDL with widl (mingw-w64-tools), for the
# Windows cross build. The IDL files import oaidl.idl/ocidl.idl, which come
# with libwine-dev; stdole2.tlb comes with Wine.
#
#   tsm_widl(idl out_dir prefix)
#
# writes <name>.h, <name>_i.c, <name>.tlb and a <name>.rc embedding the type
# library (resource 1 TYPELIB) under out_dir, all in the build folder, and
# sets <prefix>_HEADER, <prefix>_IID_C, <prefix>_TLB and <prefix>_RC.

find_program(TSM_WIDL NAMES x86_64-w64-mingw32-widl widl REQUIRED)
find_path(TSM_WINE_IDL_DIR oaidl.idl PATHS /usr/include/wine/wine/windows /usr/include/wine/windows
          NO_CMAKE_FIND_ROOT_PATH REQUIRED)
find_path(TSM_STDOLE2_DIR stdole2.tlb
          PATHS /usr/lib/x86_64-linux-gnu/wine/x86_64-windows /usr/lib/wine/x86_64-windows
          NO_CMAKE_FIND_ROOT_PATH REQUIRED)

function(tsm_widl idl out_dir prefix)
  get_filename_component(name ${idl} NAME_WE)
  file(MAKE_DIRECTORY ${out_dir})
  set(header ${out_dir}/${name}.h)
  set(iid_c ${out_dir}/${name}_i.c)
  set(tlb ${out_dir}/${name}.tlb)
  set(rc ${out_dir}/${name}.rc)
  add_custom_command(
    OUTPUT ${header} ${iid_c} ${tlb}
    COMMAND ${TSM_WIDL} -m64 -I${TSM_WINE_IDL_DIR} -L${TSM_STDOLE2_DIR}
            -h -H ${header} -t -T ${tlb} -u -U ${iid_c} ${idl}
    DEPENDS ${idl}
    COMMENT "widl ${name}.idl"
    VERBATIM)
  file(WRITE ${rc}.in "1 TYPELIB \"${tlb}\"\n")
  configure_file(${rc}.in ${rc} COPYONLY)
  set_source_files_properties(${rc} PROPERTIES OBJECT_DEPENDS ${tlb})
  set(${prefix}_HEADER ${header} PARENT_SCOPE)
  set(${prefix}_IID_C ${iid_c} PARENT_SCOPE)
  set(${prefix}_TLB ${tlb} PARENT_SCOPE)
  set(${prefix}_RC ${rc} PARENT_SCOPE)
endfunction()
