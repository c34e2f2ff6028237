# What `cmake --install` installs: headers, libraries and what finds them, programs, manual pages,
# guide, examples.
include(CMakePackageConfigHelpers)

set(PACKAGE_FOLDER ${CMAKE_INSTALL_LIBDIR}/cmake/vek)
set(PC_FOLDER ${CMAKE_INSTALL_LIBDIR}/pkgconfig)

install(FILES ${BASE_HEADERS} ${NET_HEADERS} ${HTTP_HEADERS}
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR}/vek)
if(PROJECT_IS_TOP_LEVEL OR NOT BUILD_SHARED_LIBS)
  install(TARGETS vekbase veknet vekhttp EXPORT vekStaticTargets)
  install(EXPORT vekStaticTargets NAMESPACE vek:: DESTINATION ${PACKAGE_FOLDER})
endif()
if(VEK_SHARED)
  install(TARGETS vekbase_shared veknet_shared vekhttp_shared EXPORT vekSharedTargets)
  install(EXPORT vekSharedTargets NAMESPACE vek:: DESTINATION ${PACKAGE_FOLDER})
endif()

configure_package_config_file(CMAKE/vekConfig.cmake.in vekConfig.cmake
  INSTALL_DESTINATION ${PACKAGE_FOLDER} NO_SET_AND_CHECK_MACRO)
write_basic_package_version_file(vekConfigVersion.cmake COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/vekConfig.cmake ${PROJECT_BINARY_DIR}/vekConfigVersion.cmake
  DESTINATION ${PACKAGE_FOLDER})

# The .pc files find the rest from where they are, so that the whole may be moved.
file(RELATIVE_PATH PC_PREFIX /${PC_FOLDER} /)
string(REGEX REPLACE "/$" "" PC_PREFIX "${PC_PREFIX}")
function(vek_install_pc name description)
  cmake_parse_arguments(PC "" "" "REQUIRES;PRIVATE;LIBS" ${ARGN})
  list(JOIN PC_REQUIRES ", " PC_REQUIRES)
  list(JOIN PC_PRIVATE ", " PC_PRIVATE)
  list(JOIN PC_LIBS " " PC_LIBS)
  configure_file(CMAKE/vek.pc.in ${name}.pc @ONLY)
  install(FILES ${PROJECT_BINARY_DIR}/${name}.pc DESTINATION ${PC_FOLDER})
endfunction()
vek_install_pc(vekbase "Service log, threads, time, conversions, utilities"
  PRIVATE liblz4 LIBS -pthread)
if(VEK_SCTP)
  set(NET_PRIVATE_PC libsctp)
endif()
vek_install_pc(veknet "HTTP/2 connections, sockets and TLS"
  REQUIRES "vekbase = ${PROJECT_VERSION}"
  PRIVATE libnghttp2 "openssl >= 3.0" ${NET_PRIVATE_PC})
vek_install_pc(vekhttp "HTTP/2 servers and clients on event loops"
  REQUIRES "veknet = ${PROJECT_VERSION}" PRIVATE libuv)

install(DIRECTORY SAMPLE/GUIDE/ EXAMPLE DESTINATION ${CMAKE_INSTALL_DOCDIR}/examples)
install(FILES README.md DOC/guide.md DESTINATION ${CMAKE_INSTALL_DOCDIR})
install(FILES DOC/MAN/vek.7 DESTINATION ${CMAKE_INSTALL_MANDIR}/man7)
if(VEK_PROGRAMS)
  list(TRANSFORM INSTALLED_PROGRAMS REPLACE "(.+)" "DOC/MAN/\\1.1" OUTPUT_VARIABLE pages)
  install(FILES ${pages} DESTINATION ${CMAKE_INSTALL_MANDIR}/man1)
  file(RELATIVE_PATH library_folder /${CMAKE_INSTALL_BINDIR} /${CMAKE_INSTALL_LIBDIR})
  set_target_properties(${INSTALLED_PROGRAMS} PROPERTIES INSTALL_RPATH "$ORIGIN/${library_folder}")
  install(TARGETS ${INSTALLED_PROGRAMS})
  install(FILES TOOL/LOAD/vekload-1.schema.json DESTINATION ${CMAKE_INSTALL_DATADIR}/vekload)
endif()
