# What `cmake --install` puts into a prefix for a host to build against:
#   include/tradeslice/        the public headers (and the generated version.h)
#   bin/ or lib/               the two shared libraries (DLLs in bin/, their
#                              import libraries in lib/ on Windows)
#   lib/cmake/TradeSliceManager/  the package: find_package(TradeSliceManager 1.0)
#                              gives TradeSliceManager::TradeSliceManager (which
#                              brings TradeSliceManager::BaseData along)
#   lib/pkgconfig/tradeslicemanager.pc
#   lib/typelib/               type libraries registered with tsm_install_type_library
# The rules name targets, never file names: a target that renames its output
# is installed under its new name.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(TSM_INSTALLED_TARGETS TradeSliceManager BaseData)
set_target_properties(TradeSliceManager PROPERTIES TSM_DESCRIPTION "TradeSliceManager slice manager component")
set_target_properties(BaseData PROPERTIES TSM_DESCRIPTION "TradeSliceManager base-data component")
# The manager's interfaces hand out the base-data component's records.
target_link_libraries(TradeSliceManager INTERFACE BaseData)
if(NOT WIN32)
  # Installed side by side: the manager finds the base-data library beside it.
  set_target_properties(${TSM_INSTALLED_TARGETS} PROPERTIES INSTALL_RPATH "$ORIGIN")
endif()

# What an install needs built (scripts/package builds just this).
add_custom_target(tsm_install_targets DEPENDS ${TSM_INSTALLED_TARGETS})

install(TARGETS ${TSM_INSTALLED_TARGETS} EXPORT TradeSliceManagerTargets
  RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR}
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  ARCHIVE DESTINATION ${CMAKE_INSTALL_LIBDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/tradeslice ${TSM_GENERATED_INCLUDE}/tradeslice
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} FILES_MATCHING PATTERN "*.h")

set(TSM_PACKAGE_DIR ${CMAKE_INSTALL_LIBDIR}/cmake/TradeSliceManager)
install(EXPORT TradeSliceManagerTargets NAMESPACE TradeSliceManager:: DESTINATION ${TSM_PACKAGE_DIR})
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/TradeSliceManagerConfig.cmake.in
  ${PROJECT_BINARY_DIR}/package/TradeSliceManagerConfig.cmake INSTALL_DESTINATION ${TSM_PACKAGE_DIR})
write_basic_package_version_file(${PROJECT_BINARY_DIR}/package/TradeSliceManagerConfigVersion.cmake
  VERSION ${PROJECT_VERSION} COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/package/TradeSliceManagerConfig.cmake
              ${PROJECT_BINARY_DIR}/package/TradeSliceManagerConfigVersion.cmake
  DESTINATION ${TSM_PACKAGE_DIR})

# pkg-config: the prefix is found from the file's own place, so the installed
# tree can be moved. Libraries are named by file (they carry no "lib" prefix).
file(GENERATE OUTPUT ${PROJECT_BINARY_DIR}/package/tradeslicemanager.pc CONTENT "\
prefix=\${pcfiledir}/../..
includedir=\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}
libdir=\${prefix}/${CMAKE_INSTALL_LIBDIR}

Name: TradeSliceManager
Description: Slice manager component: works large parent orders as child orders
Version: ${PROJECT_VERSION}
Cflags: -I\${includedir}
Libs: \${libdir}/$<TARGET_LINKER_FILE_NAME:TradeSliceManager> \${libdir}/$<TARGET_LINKER_FILE_NAME:BaseData>
")
install(FILES ${PROJECT_BINARY_DIR}/package/tradeslicemanager.pc DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# Type libraries a target builds (Windows): tsm_install_type_library(file ...)
# from anywhere in the tree, before this file is included.
get_property(TSM_TYPE_LIBRARIES GLOBAL PROPERTY TSM_TYPE_LIBRARIES)
if(TSM_TYPE_LIBRARIES)
  install(FILES ${TSM_TYPE_LIBRARIES} DESTINATION ${CMAKE_INSTALL_LIBDIR}/typelib)
endif()
