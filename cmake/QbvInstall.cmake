# Installed: the two shared libraries, the scripted platform for hosts' tests, the public headers, a CMake package and
# a pkg-config file. Public are the platform interfaces and the headers named for a class (QB*.h).
include(CMakePackageConfigHelpers)

set(qbv_include_dir "${CMAKE_INSTALL_INCLUDEDIR}/quibvitalscope")

# qbv_public_headers(TARGET pattern...): patterns are relative to the project's root.
function(qbv_public_headers target)
  list(TRANSFORM ARGN PREPEND "${PROJECT_SOURCE_DIR}/" OUTPUT_VARIABLE patterns)
  file(GLOB headers CONFIGURE_DEPENDS ${patterns})
  target_sources(${target} INTERFACE FILE_SET HEADERS BASE_DIRS "${PROJECT_SOURCE_DIR}" FILES ${headers})
  target_include_directories(${target} INTERFACE "$<INSTALL_INTERFACE:${qbv_include_dir}>")
endfunction()

function(qbv_shared_library target map)
  set_target_properties(${target} PROPERTIES
    VERSION ${PROJECT_VERSION} SOVERSION ${PROJECT_VERSION_MAJOR}
    LINK_DEPENDS "${map}" INSTALL_RPATH "\$ORIGIN")
  # Never unloaded: its threads and handlers live as long as the process.
  target_link_options(${target} PRIVATE
    "LINKER:--version-script=${map}" LINKER:--exclude-libs,ALL LINKER:-z,nodelete LINKER:-z,relro)
  # A sanitized library leaves the sanitizer's symbols to the program.
  if(NOT QBV_SANITIZE)
    target_link_options(${target} PRIVATE LINKER:--no-undefined)
  endif()
endfunction()

# Linkers that drop libraries from which nothing is called (--as-needed, the default on some systems) would drop a
# monitor. So whoever links the target names it once more to the linker, as a library to keep; what else the program
# links is treated as its own flags say.
function(qbv_kept_library target)
  target_link_options(${target} INTERFACE
    "LINKER:--push-state,--no-as-needed,$<TARGET_FILE:$<TARGET_NAME:${target}>>,--pop-state")
endfunction()

function(qbv_install)
  install(TARGETS ${ARGN} EXPORT QuibVitalscopeTargets FILE_SET HEADERS DESTINATION "${qbv_include_dir}")
endfunction()

# Once, after every qbv_install.
function(qbv_install_package)
  set(package_dir "${CMAKE_INSTALL_LIBDIR}/cmake/QuibVitalscope")
  install(EXPORT QuibVitalscopeTargets NAMESPACE QuibVitalscope:: DESTINATION "${package_dir}")
  configure_package_config_file("${PROJECT_SOURCE_DIR}/cmake/QuibVitalscopeConfig.cmake.in"
    "${PROJECT_BINARY_DIR}/QuibVitalscopeConfig.cmake" INSTALL_DESTINATION "${package_dir}")
  write_basic_package_version_file("${PROJECT_BINARY_DIR}/QuibVitalscopeConfigVersion.cmake"
    COMPATIBILITY SameMinorVersion)
  install(FILES "${PROJECT_BINARY_DIR}/QuibVitalscopeConfig.cmake"
    "${PROJECT_BINARY_DIR}/QuibVitalscopeConfigVersion.cmake" DESTINATION "${package_dir}")
  file(RELATIVE_PATH QBV_PC_TO_PREFIX "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
  configure_file("${PROJECT_SOURCE_DIR}/cmake/quibvitalscope.pc.in" "${PROJECT_BINARY_DIR}/quibvitalscope.pc" @ONLY)
  install(FILES "${PROJECT_BINARY_DIR}/quibvitalscope.pc" DESTINATION "${CMAKE_INSTALL_LIBDIR}/pkgconfig")
endfunction()
