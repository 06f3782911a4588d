# Installation: the shared library with its SONAME links, the public headers, a
# pkg-config file, a CMake package (find_package(kisam)), the kisam tool and its
# manual page.
include(CMakePackageConfigHelpers)

install(TARGETS kisam EXPORT kisamTargets
  LIBRARY DESTINATION ${CMAKE_INSTALL_LIBDIR} COMPONENT runtime NAMELINK_COMPONENT development
  INCLUDES DESTINATION ${CMAKE_INSTALL_INCLUDEDIR})
install(DIRECTORY ${PROJECT_SOURCE_DIR}/include/kisam
  DESTINATION ${CMAKE_INSTALL_INCLUDEDIR} COMPONENT development
  FILES_MATCHING PATTERN "*.h")

install(EXPORT kisamTargets
  NAMESPACE kisam::
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kisam COMPONENT development)
configure_package_config_file(
  ${PROJECT_SOURCE_DIR}/cmake/kisamConfig.cmake.in
  ${PROJECT_BINARY_DIR}/kisamConfig.cmake
  INSTALL_DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kisam)
write_basic_package_version_file(
  ${PROJECT_BINARY_DIR}/kisamConfigVersion.cmake
  VERSION ${PROJECT_VERSION}
  COMPATIBILITY SameMajorVersion)
install(FILES ${PROJECT_BINARY_DIR}/kisamConfig.cmake ${PROJECT_BINARY_DIR}/kisamConfigVersion.cmake
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/cmake/kisam COMPONENT development)

# pkg-config: the prefix is found from where the file lies (${pcfiledir}), so that an
# installation made with `cmake --install --prefix DIR`, or moved later, still works.
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KISAM_PC_PREFIX "${CMAKE_INSTALL_PREFIX}")
else()
  file(RELATIVE_PATH KISAM_PC_UP "/prefix/${CMAKE_INSTALL_LIBDIR}/pkgconfig" "/prefix")
  string(REGEX REPLACE "/$" "" KISAM_PC_UP "${KISAM_PC_UP}")
  set(KISAM_PC_PREFIX "\${pcfiledir}/${KISAM_PC_UP}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_LIBDIR}")
  set(KISAM_PC_LIBDIR "${CMAKE_INSTALL_LIBDIR}")
else()
  set(KISAM_PC_LIBDIR "\${exec_prefix}/${CMAKE_INSTALL_LIBDIR}")
endif()
if(IS_ABSOLUTE "${CMAKE_INSTALL_INCLUDEDIR}")
  set(KISAM_PC_INCLUDEDIR "${CMAKE_INSTALL_INCLUDEDIR}")
else()
  set(KISAM_PC_INCLUDEDIR "\${prefix}/${CMAKE_INSTALL_INCLUDEDIR}")
endif()
configure_file(${PROJECT_SOURCE_DIR}/cmake/kisam.pc.in ${PROJECT_BINARY_DIR}/kisam.pc @ONLY)
install(FILES ${PROJECT_BINARY_DIR}/kisam.pc
  DESTINATION ${CMAKE_INSTALL_LIBDIR}/pkgconfig COMPONENT development)

if(TARGET kisam_tool)
  install(TARGETS kisam_tool RUNTIME DESTINATION ${CMAKE_INSTALL_BINDIR} COMPONENT runtime)
  install(FILES ${PROJECT_SOURCE_DIR}/tools/kisam/kisam.1
    DESTINATION ${CMAKE_INSTALL_MANDIR}/man1 COMPONENT runtime)
  # bash completion, where bash-completion looks for it by the command's name.
  install(FILES ${PROJECT_SOURCE_DIR}/tools/kisam/kisam.bash
    DESTINATION ${CMAKE_INSTALL_DATADIR}/bash-completion/completions RENAME kisam COMPONENT runtime)
endif()

# Section-3 manual pages of the library, and a link for every other name a page
# documents (man/links), so that "man niscreate" shows nisopen(3).
if(EXISTS ${PROJECT_SOURCE_DIR}/man/links)
  file(GLOB KISAM_MAN3_PAGES CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/*.3)
  install(FILES ${KISAM_MAN3_PAGES} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
  set_property(DIRECTORY APPEND PROPERTY CMAKE_CONFIGURE_DEPENDS ${PROJECT_SOURCE_DIR}/man/links)
  set(KISAM_MAN3_LINKDIR ${PROJECT_BINARY_DIR}/man3-links)
  file(REMOVE_RECURSE ${KISAM_MAN3_LINKDIR})
  file(MAKE_DIRECTORY ${KISAM_MAN3_LINKDIR})
  file(STRINGS ${PROJECT_SOURCE_DIR}/man/links KISAM_MAN3_LINES)
  set(page "")
  set(KISAM_MAN3_LINKS "")
  foreach(line IN LISTS KISAM_MAN3_LINES)
    string(REGEX REPLACE "#.*" "" line "${line}")
    string(STRIP "${line}" line)
    if(line STREQUAL "")
      continue()
    endif()
    string(REGEX REPLACE "[ \t]+" ";" words "${line}")
    foreach(word IN LISTS words)
      if(word MATCHES "^(.+):$")
        set(page ${CMAKE_MATCH_1})
      else()
        file(CREATE_LINK ${page}.3 ${KISAM_MAN3_LINKDIR}/${word}.3 SYMBOLIC)
        list(APPEND KISAM_MAN3_LINKS ${KISAM_MAN3_LINKDIR}/${word}.3)
      endif()
    endforeach()
  endforeach()
  install(FILES ${KISAM_MAN3_LINKS} DESTINATION ${CMAKE_INSTALL_MANDIR}/man3 COMPONENT development)
endif()
