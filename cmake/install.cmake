# What `cmake --install` puts under its prefix, so that another project can write a module or a
# client against our framework:
#   bin/                          every tool of tools/ (oxbroker, oxcall, ...)
#   lib/                          liboxframework.so, liboxnet.so (remote proxies and the host) and
#                                 the module libvideoinput.so
#   lib/gstreamer-1.0/            the GStreamer plugin libgstoxvideo.so (oxvideosrc, oxsimsink)
#   include/libvideoinput/        the framework's and net/'s headers, oxvalue/detail/ and
#                                 ivideoinput.h
#   share/libvideoinput/preferences/   the default preference files
#   share/libvideoinput/http/     the broker host's pages
#   lib/pkgconfig/libvideoinput.pc (and libvideoinput-net.pc) and lib/cmake/libvideoinput/ (package
#   libvideoinput, targets libvideoinput::oxframework and libvideoinput::oxnet; libvideoinput_MODULE and libvideoinput_PREFERENCES_DIR say where
#   the module and the preferences are).
# Everything finds its neighbours relative to itself, so the tree may be moved.
# Included from the top-level CMakeLists.txt once every target exists.
include(GNUInstallDirs)
include(CMakePackageConfigHelpers)

set(VI_INSTALL_INCLUDEDIR ${CMAKE_INSTALL_INCLUDEDIR}/libvideoinput)
set(VI_INSTALL_PREFERENCESDIR ${CMAKE_INSTALL_DATADIR}/libvideoinput/preferences)
set(VI_INSTALL_HTTPDIR ${CMAKE_INSTALL_DATADIR}/libvideoinput/http)
set(VI_INSTALL_CMAKEDIR ${CMAKE_INSTALL_LIBDIR}/cmake/libvideoinput)

# Installed programs and libraries find ours through a relative RPATH.
file(RELATIVE_PATH VI_LIB_FROM_BIN /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
file(RELATIVE_PATH VI_PREFERENCES_FROM_BIN /${CMAKE_INSTALL_BINDIR} /${VI_INSTALL_PREFERENCESDIR})
file(RELATIVE_PATH VI_HTTP_FROM_BIN /${CMAKE_INSTALL_BINDIR} /${VI_INSTALL_HTTPDIR})
set_target_properties(oxframework oxnet videoinput PROPERTIES INSTALL_RPATH "$ORIGIN")

# The broker host looks for the installed preferences and module beside itself first.
target_compile_definitions(oxbroker PRIVATE
  VI_PREFERENCES_FROM_BIN="${VI_PREFERENCES_FROM_BIN}" VI_MODULES_FROM_BIN="${VI_LIB_FROM_BIN}"
  VI_HTTP_FROM_BIN="${VI_HTTP_FROM_BIN}")

# Every program of tools/, whatever it holds.
get_property(vi_tool_targets DIRECTORY ${PROJECT_SOURCE_DIR}/tools PROPERTY BUILDSYSTEM_TARGETS)
set(VI_INSTALLED_TOOLS)
foreach(target ${vi_tool_targets})
  get_target_property(type ${target} TYPE)
  if(type STREQUAL "EXECUTABLE")
    list(APPEND VI_INSTALLED_TOOLS ${target})
  endif()
endforeach()
set_target_properties(${VI_INSTALLED_TOOLS} PROPERTIES INSTALL_RPATH "$ORIGIN/${VI_LIB_FROM_BIN}")
install(TARGETS ${VI_INSTALLED_TOOLS} RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR})

install(TARGETS oxframework oxnet EXPORT libvideoinputTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}
  INCLUDES DESTINATION ${VI_INSTALL_INCLUDEDIR})
# A module, loaded with dlopen: no target to link against.
install(TARGETS videoinput LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR})
# The GStreamer plugin, in the prefix's GStreamer plugin folder (the system's own for the prefix
# /usr, where gst-inspect-1.0 finds it unaided); it finds our libraries one folder up.
set_target_properties(gstoxvideo PROPERTIES INSTALL_RPATH "$ORIGIN/..")
install(TARGETS gstoxvideo LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR}/gstreamer-1.0)

install(DIRECTORY ${PROJECT_SOURCE_DIR}/framework/ DESTINATION ${VI_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/net/ DESTINATION ${VI_INSTALL_INCLUDEDIR}
  FILES_MATCHING PATTERN "*.h")
install(DIRECTORY ${PROJECT_SOURCE_DIR}/liboxvalue/oxvalue/detail/
  DESTINATION ${VI_INSTALL_INCLUDEDIR}/oxvalue/detail FILES_MATCHING PATTERN "*.h")
install(FILES ${PROJECT_SOURCE_DIR}/vision/videoinput/src/device/ivideoinput.h
  DESTINATION ${VI_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/share/preferences/ DESTINATION ${VI_INSTALL_PREFERENCESDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/share/http/ DESTINATION ${VI_INSTALL_HTTPDIR})

install(EXPORT libvideoinputTargets NAMESPACE libvideoinput:: DESTINATION ${VI_INSTALL_CMAKEDIR})
set(VI_INSTALL_MODULE ${CMAKE_INSTALL_LIBDIR}/libvideoinput.so)
configure_package_config_file(${CMAKE_CURRENT_LIST_DIR}/libvideoinputConfig.cmake.in
  ${PROJECT_BINARY_DIR}/libvideoinputConfig.cmake
  INSTALL_DESTINATION ${VI_INSTALL_CMAKEDIR}
  PATH_VARS VI_INSTALL_MODULE VI_INSTALL_PREFERENCESDIR)
write_basic_package_version_file(${PROJECT_BINARY_DIR}/libvideoinputConfigVersion.cmake
  COMPATIBILITY SameMinorVersion)
install(FILES ${PROJECT_BINARY_DIR}/libvideoinputConfig.cmake
  ${PROJECT_BINARY_DIR}/libvideoinputConfigVersion.cmake DESTINATION ${VI_INSTALL_CMAKEDIR})

# The .pc file names its directories from its own place (${pcfiledir}), so that it holds for any
# --prefix given at install time.
file(RELATIVE_PATH VI_PREFIX_FROM_PC /${CMAKE_INSTALL_LIBDIR}/pkgconfig /)
string(REGEX REPLACE "/$" "" VI_PREFIX_FROM_PC ${VI_PREFIX_FROM_PC})
configure_file(${CMAKE_CURRENT_LIST_DIR}/libvideoinput.pc.in ${PROJECT_BINARY_DIR}/libvideoinput.pc
  @ONLY)
configure_file(${CMAKE_CURRENT_LIST_DIR}/libvideoinput-net.pc.in
  ${PROJECT_BINARY_DIR}/libvideoinput-net.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/libvideoinput.pc ${PROJECT_BINARY_DIR}/libvideoinput-net.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

# The install as another project sees it; sanitizer builds are left out, since an ordinary
# program cannot link their libraries.
if(VI_BUILD_TESTS AND VI_SANITIZE STREQUAL "")
  add_test(NAME Install.ConsumerBuildsAndRunsAgainstThePrefixAlone
    COMMAND ${PROJECT_SOURCE_DIR}/tests/consumer/check-install.sh ${PROJECT_BINARY_DIR})
  set_tests_properties(Install.ConsumerBuildsAndRunsAgainstThePrefixAlone
    PROPERTIES LABELS unit TIMEOUT 120)
endif()
